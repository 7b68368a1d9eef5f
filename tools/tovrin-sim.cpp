// tovrin-sim: what the daemon would do with a configuration when commands
// fail, links drop and operators act as a script says, on a virtual clock.
//
//   tovrin-sim [--svg OUT] [--log MASKS] SCRIPT [FILE]
//
// Exit status: 0 the script ran, 1 the configuration did not load (or the
// simulation could not run), 2 the script is wrong, 64 usage error.

#include <sysexits.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <sstream>

#include "daemon/paths.h"
#include "sim/simulator.h"
#include "sim/timeline_svg.h"

namespace {

int usage() {
    fprintf(stderr, "usage: tovrin-sim [--svg OUT] [--log MASKS] SCRIPT [FILE]\n");
    return EX_USAGE;
}

std::string dir_of(const std::string &path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash == 0 ? 1 : slash);
}

}  // namespace

int main(int argc, char **argv) {
    std::string svg, script_path, config_path;
    sim_settings settings;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--svg") == 0 && i + 1 < argc && svg.empty()) {
            svg = argv[++i];
        } else if (strcmp(argv[i], "--log") == 0 && i + 1 < argc && !settings.masks) {
            settings.masks = sim_log_masks_parse(argv[++i]);
            if (!settings.masks) {
                fprintf(stderr, "tovrin-sim: unknown log mask word in '%s'\n", argv[i]);
                return usage();
            }
        } else if (argv[i][0] == '-' || !config_path.empty()) {
            return usage();
        } else if (script_path.empty()) {
            script_path = argv[i];
        } else {
            config_path = argv[i];
        }
    }
    if (script_path.empty())
        return usage();
    settings.config_path =
        config_path.empty() ? tovrin_paths_production().config_file : config_path;

    std::ifstream in(script_path);
    if (!in) {
        fprintf(stderr, "tovrin-sim: cannot read %s\n", script_path.c_str());
        return 2;
    }
    std::ostringstream text;
    text << in.rdbuf();
    sim_script script;
    if (auto error = sim_script_parse(text.str(), dir_of(script_path), &script)) {
        fprintf(stderr, "%s:%d: %s\n", script_path.c_str(), error->line, error->message.c_str());
        return 2;
    }

    try {
        sim_outcome outcome = tovrin_simulate(script, settings, stdout, !svg.empty());
        fflush(stdout);
        switch (outcome.result) {
            case sim_outcome::NOT_LOADED:
                fprintf(stderr, "tovrin-sim: %s did not load\n", settings.config_path.c_str());
                return 1;
            case sim_outcome::WALL_TIMER:
                fprintf(stderr, "tovrin-sim: the daemon armed a timer on the wall clock\n");
                return 1;
            case sim_outcome::STILL_CHANGING:
                fprintf(stderr,
                        "tovrin-sim: still changing %ld s after the last event; stopped there "
                        "(give an end to go on)\n",
                        SIM_SETTLE_LIMIT);
                break;
            case sim_outcome::RAN:
                break;
        }
        if (!svg.empty()) {
            timeline_picture picture;
            picture.title = "tovrin-sim " + script_path + " " + settings.config_path;
            if (!timeline_svg_write(outcome.timeline, picture, svg)) {
                fprintf(stderr, "tovrin-sim: cannot write %s\n", svg.c_str());
                return 1;
            }
        }
    } catch (const std::exception &e) {
        fprintf(stderr, "tovrin-sim: %s\n", e.what());
        return 1;
    }
    return 0;
}
