#include "sim/script.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <sstream>

namespace {

constexpr long MAX_SECONDS = 10L * 366 * 24 * 3600;

const char *const kind_names[SIM_N_KINDS] = {"start", "stop", "test", "up"};

struct line_reader {
    std::vector<std::string> words;  // before any comment
    std::string line;                // the whole line, for texts that run to its end

    // What follows the first n words, up to the end of the line.
    std::string rest_after(size_t n) const {
        size_t at = 0;
        for (size_t i = 0; i < n; i++) {
            at = line.find_first_not_of(" \t", at);
            at = line.find_first_of(" \t", at);
        }
        at = line.find_first_not_of(" \t", at == std::string::npos ? line.size() : at);
        if (at == std::string::npos)
            return "";
        size_t last = line.find_last_not_of(" \t\r");
        return line.substr(at, last - at + 1);
    }
};

line_reader line_split(const std::string &line) {
    line_reader r{{}, line};
    std::istringstream in(line);
    for (std::string word; in >> word;) {
        if (word[0] == '#')
            break;
        r.words.push_back(word);
    }
    return r;
}

std::optional<long> count_parse(const std::string &text) {
    long value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || value < 1)
        return std::nullopt;
    return value;
}

// Fills the answer or up-exit part of an event from the words after TIME:
// KIND CONN WHAT [ARG] [N].
std::optional<std::string> command_event(const std::vector<std::string> &w, int kind,
                                         sim_event *e) {
    const std::string kind_name = kind_names[kind];
    if (w.size() < 3)
        return kind_name + " needs a conn and what its command does";
    e->conn = w[1];
    const std::string &what = w[2];
    size_t count_at = 3;
    if (what == "fails" || what == "passes") {
        e->answer = {SIM_ANSWER_STATUS, what == "fails" ? 1 : 0, -1};
    } else if (what == "hangs") {
        e->answer = {SIM_ANSWER_HANG, 1, -1};
    } else if (what == "takes" && kind != SIM_UP) {
        if (w.size() < 4)
            return "takes needs a duration";
        std::optional<long> seconds = sim_time_parse(w[3]);
        if (!seconds)
            return "bad duration '" + w[3] + "'";
        e->answer = {SIM_ANSWER_DURATION, *seconds, -1};
        count_at = 4;
    } else if (what == "exits" && kind == SIM_UP) {
        e->what = sim_event::UP_EXITS;
        if (w.size() > 4)
            return "too many words after exits";
        if (w.size() == 4) {
            std::optional<long> status = count_parse(w[3]);
            if (w[3] == "0")
                status = 0;
            if (!status || *status > 255)
                return "bad exit status '" + w[3] + "': 0 to 255";
            e->status = static_cast<int>(*status);
        }
        return std::nullopt;
    } else {
        return kind == SIM_UP ? "up takes exits, fails, passes or hangs"
                              : kind_name + " takes fails, passes, takes or hangs";
    }
    e->what = sim_event::ANSWER;
    if (w.size() > count_at + 1)
        return "too many words after " + what;
    if (w.size() == count_at + 1) {
        std::optional<long> runs = count_parse(w[count_at]);
        if (!runs)
            return "bad count '" + w[count_at] + "': a whole number from 1";
        e->answer.runs = *runs;
    }
    return std::nullopt;
}

// The event after "at TIME", or why the line is wrong.
std::optional<std::string> event_parse(const line_reader &r, const std::string &dir, sim_event *e) {
    std::vector<std::string> w(r.words.begin() + 2, r.words.end());
    e->words = r.rest_after(2);
    if (w.empty())
        return "an event must follow the time";
    for (int kind = 0; kind < SIM_N_KINDS; kind++) {
        if (w[0] == kind_names[kind]) {
            e->kind = kind;
            return command_event(w, kind, e);
        }
    }
    if (w[0] == "cmd") {
        e->what = sim_event::CMD;
        e->text = r.rest_after(3);
        e->words = "cmd " + e->text;
        return e->text.empty() ? std::optional<std::string>("cmd needs the command text")
                               : std::nullopt;
    }
    if (w[0] == "set") {
        e->what = sim_event::SET;
        e->key = w.size() > 1 ? w[1] : "";
        e->text = r.rest_after(4);
        if (e->key.empty() || e->text.empty())
            return "set needs a key and a value";
        e->words = "set " + e->key + " " + e->text;
        return std::nullopt;
    }
    if (w[0] == "reload") {
        e->what = sim_event::RELOAD;
        if (w.size() != 2)
            return "reload needs one file";
        e->text = w[1][0] == '/' || dir.empty() ? w[1] : dir + "/" + w[1];
        if (access(e->text.c_str(), R_OK) != 0)
            return "cannot read " + e->text;
        return std::nullopt;
    }
    return "unknown event '" + w[0] + "'";
}

}  // namespace

std::optional<long> sim_time_parse(std::string_view text) {
    long unit = 1;
    if (!text.empty()) {
        switch (text.back()) {
            case 's':
                unit = 1;
                break;
            case 'm':
                unit = 60;
                break;
            case 'h':
                unit = 3600;
                break;
            default:
                unit = 0;
        }
        if (unit != 0)
            text.remove_suffix(1);
        else
            unit = 1;
    }
    long value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size() || value < 0 ||
        value > MAX_SECONDS / unit)
        return std::nullopt;
    return value * unit;
}

std::optional<sim_script_error> sim_script_parse(std::string_view text, const std::string &dir,
                                                 sim_script *script) {
    sim_script parsed;
    std::istringstream in{std::string(text)};
    int number = 0;
    for (std::string line; std::getline(in, line);) {
        number++;
        line_reader r = line_split(line);
        if (r.words.empty())
            continue;
        auto fail = [&](const std::string &message) {
            return std::optional<sim_script_error>(sim_script_error{number, message});
        };
        if (r.words[0] != "at" && r.words[0] != "end")
            return fail("expected 'at TIME EVENT' or 'end TIME', not '" + r.words[0] + "'");
        if (r.words.size() < 2)
            return fail(r.words[0] + " needs a time");
        std::optional<long> time = sim_time_parse(r.words[1]);
        if (!time)
            return fail("bad time '" + r.words[1] + "': whole seconds, or with s, m or h");
        if (r.words[0] == "end") {
            if (r.words.size() > 2)
                return fail("end takes only a time");
            if (parsed.end)
                return fail("a second end");
            parsed.end = time;
            continue;
        }
        sim_event e;
        e.line = number;
        e.time = *time;
        if (std::optional<std::string> error = event_parse(r, dir, &e))
            return fail(*error);
        parsed.events.push_back(std::move(e));
    }
    std::stable_sort(parsed.events.begin(), parsed.events.end(),
                     [](const sim_event &a, const sim_event &b) { return a.time < b.time; });
    if (parsed.end && !parsed.events.empty() && parsed.events.back().time > *parsed.end) {
        const sim_event &late = parsed.events.back();
        return sim_script_error{late.line, "this event comes after the end"};
    }
    *script = std::move(parsed);
    return std::nullopt;
}
