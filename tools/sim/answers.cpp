#include "sim/answers.h"

void sim_answers::set(const std::string &conn, int kind, const sim_answer &answer) {
    by_conn_[conn][kind][answer.aspect] = held{answer.value, answer.runs};
}

sim_run sim_answers::take(const std::string &conn, int kind) {
    sim_run run;
    // Up commands run until they are stopped; the others succeed at once.
    if (kind != SIM_UP)
        run.status = 0;
    auto found = by_conn_.find(conn);
    if (found == by_conn_.end())
        return run;
    aspects &given = found->second[kind];
    auto use = [](held &h) {
        long value = h.value;
        if (h.runs > 0 && --h.runs == 0)
            h = held{};
        return value;
    };
    long status = use(given[SIM_ANSWER_STATUS]);
    if (kind != SIM_UP)
        run.status = static_cast<int>(status);
    else if (status != 0)
        run.status = static_cast<int>(status);
    run.after = use(given[SIM_ANSWER_DURATION]);
    run.ignores_term = use(given[SIM_ANSWER_HANG]) != 0;
    if (run.ignores_term)
        run.status.reset();
    return run;
}

bool sim_answers::steady_pass(const std::string &conn, int kind, long timeout) const {
    auto found = by_conn_.find(conn);
    if (found == by_conn_.end())
        return true;
    const aspects &given = found->second[kind];
    for (const held &h : given) {
        if (h.runs > 0)
            return false;
    }
    return given[SIM_ANSWER_STATUS].value == 0 && given[SIM_ANSWER_HANG].value == 0 &&
           (timeout == 0 || given[SIM_ANSWER_DURATION].value < timeout);
}
