#include "sim/timeline_svg.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "supervise/state.h"

namespace {

constexpr double PLOT_WIDTH = 1000;
constexpr double ROW_HEIGHT = 22;
constexpr double BAND_TOP = 3;
constexpr double BAND_HEIGHT = 14;
constexpr double CHAR_WIDTH = 7;  // of the 12-pixel font, roughly
constexpr int LABEL_LANES = 3;
constexpr double LANE_HEIGHT = 14;
// Times this large are seconds since the epoch: a recording.
constexpr double EPOCH_TIMES = 1e8;

struct band {
    double from, to;
    std::string state;
};

struct row {
    std::string name;
    int depth = 0;
    std::vector<band> bands;
    std::vector<std::pair<double, double>> active;  // while its group had it active
    double active_since = -1;                       // open interval; -1: not active
};

struct group_info {
    std::vector<std::string> members;
    std::string active;
    int index = -1;          // of the active member
    int settled_index = -1;  // at the last completed failover, or when first seen
};

enum marker_kind { FAILOVER, FAILFORWARD, COMMAND, RELOAD, INJECTED };

struct marker {
    marker_kind kind;
    double time;
    std::string conn;  // its row; empty: across every row
    std::string text;
};

std::string escaped(const std::string &text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                // Control bytes are not allowed in XML 1.0 at all.
                out += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
        }
    }
    return out;
}

std::string number(double value) {
    char text[32];
    snprintf(text, sizeof text, "%.1f", value);
    return text;
}

std::string state_fill(const std::string &state) {
    const char *colour = tovrin_state_colour(tovrin_state_by_name(state));
    return colour != nullptr ? colour : "yellow";
}

// Black on light fills, white on dark ones.
const char *text_on(const std::string &fill) {
    unsigned r = 128, g = 128, b = 128;
    if (fill.size() == 7 && fill[0] == '#')
        sscanf(fill.c_str() + 1, "%2x%2x%2x", &r, &g, &b);
    else if (fill == "yellow")
        r = g = 255, b = 0;
    return 0.299 * r + 0.587 * g + 0.114 * b < 140 ? "white" : "black";
}

// "M:SS", or "H:MM:SS" from an hour on, of seconds from the start.
std::string clock_label(double seconds) {
    long s = std::lround(seconds);
    char text[32];
    if (s >= 3600)
        snprintf(text, sizeof text, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
    else
        snprintf(text, sizeof text, "%ld:%02ld", s / 60, s % 60);
    return text;
}

// Everything the picture shows, read from the events.
struct model {
    double start = 0, end = 0;
    std::vector<std::string> first_seen;
    std::map<std::string, row> rows;
    std::map<std::string, group_info> groups;
    std::vector<marker> markers;
    std::set<std::string> states;

    row &row_of(const std::string &name) {
        auto [it, added] = rows.try_emplace(name);
        if (added) {
            it->second.name = name;
            first_seen.push_back(name);
        }
        return it->second;
    }

    void state(double t, const std::string &conn, const std::string &state) {
        row &r = row_of(conn);
        if (!r.bands.empty() && r.bands.back().to < 0)
            r.bands.back().to = t;
        r.bands.push_back({t, -1, state});
        states.insert(state);
    }

    void active(double t, const std::string &group, const std::string &member) {
        group_info &g = groups[group];
        if (g.active == member)
            return;
        if (!g.active.empty() && rows.count(g.active) != 0) {
            row &old = rows[g.active];
            if (old.active_since >= 0)
                old.active.emplace_back(old.active_since, t);
            old.active_since = -1;
        }
        g.active = member;
        row_of(member).active_since = t;
        auto at = std::find(g.members.begin(), g.members.end(), member);
        g.index = at == g.members.end() ? -1 : static_cast<int>(at - g.members.begin());
        if (g.settled_index < 0)
            g.settled_index = g.index;
    }

    void failed_over(double t, const std::string &group) {
        group_info &g = groups[group];
        bool forward = g.index >= 0 && g.settled_index >= 0 && g.index < g.settled_index;
        markers.push_back({forward ? FAILFORWARD : FAILOVER, t, group,
                           (forward ? "failforward to " : "failover to ") + g.active});
        g.settled_index = g.index;
    }

    // A key the daemon set: a status, or one of a group's keys.
    void key_set(double t, const std::string &key, const std::string &value) {
        const std::string prefix = "tovrin.";
        if (!key.starts_with(prefix))
            return;
        for (const char *suffix : {".connection-names", ".active-connection-name",
                                   ".active-connection-index", ".failover-timestamp"}) {
            std::string s = suffix;
            if (!key.ends_with(s) || key.size() <= prefix.size() + s.size())
                continue;
            std::string group = key.substr(prefix.size(), key.size() - prefix.size() - s.size());
            if (s == ".connection-names") {
                std::vector<std::string> members;
                std::istringstream in(value);
                for (std::string m; std::getline(in, m, ',');)
                    members.push_back(m);
                groups[group].members = members;
                row_of(group);
            } else if (s == ".active-connection-name") {
                active(t, group, value);
            } else if (s == ".failover-timestamp") {
                failed_over(t, group);
            }
            return;
        }
    }

    void read(const std::vector<timeline_event> &events) {
        bool ended = false;
        for (const timeline_event &e : events) {
            if (&e == &events.front())
                start = end = e.time;
            end = ended ? end : std::max(end, e.time);
            std::string rest, first = timeline_word(e.text, &rest);
            if (e.verb == "state") {
                state(e.time, first, rest);
            } else if (e.verb == "set") {
                key_set(e.time, first, rest);
            } else if (e.verb == "del" && first.starts_with("tovrin.") &&
                       first.ends_with(".status")) {
                std::string conn = first.substr(7, first.size() - 14);
                if (rows.count(conn) != 0 && !rows[conn].bands.empty() &&
                    rows[conn].bands.back().to < 0)
                    rows[conn].bands.back().to = e.time;
            } else if (e.verb == "cmd") {
                markers.push_back({COMMAND, e.time, "", "cmd " + e.text});
            } else if (e.verb == "reload") {
                std::string file = e.text.substr(e.text.rfind('/') + 1);
                markers.push_back({RELOAD, e.time, "", "reload " + file});
            } else if (e.verb == "inject") {
                std::string conn = timeline_word(rest);
                markers.push_back({INJECTED, e.time, rows.count(conn) != 0 ? conn : "", e.text});
            } else if (e.verb == "end") {
                end = e.time;
                ended = true;
            }
        }
        if (end <= start)
            end = start + 1;
        for (auto &[name, r] : rows) {
            for (band &b : r.bands) {
                if (b.to < 0)
                    b.to = end;
            }
            if (r.active_since >= 0)
                r.active.emplace_back(r.active_since, end);
        }
    }

    // The rows in picture order: first seen, each group's members beneath it.
    std::vector<row *> ordered() {
        std::map<std::string, std::string> group_of;
        for (const auto &[group, g] : groups) {
            for (const std::string &m : g.members)
                group_of.try_emplace(m, group);
        }
        std::vector<row *> out;
        std::set<std::string> placed;
        auto place = [&](auto &self, const std::string &name, int depth) -> void {
            if (!placed.insert(name).second || rows.count(name) == 0)
                return;
            rows[name].depth = depth;
            out.push_back(&rows[name]);
            auto g = groups.find(name);
            if (g == groups.end())
                return;
            for (const std::string &m : g->second.members)
                self(self, m, depth + 1);
        };
        for (const std::string &name : first_seen) {
            auto g = group_of.find(name);
            if (g == group_of.end() || rows.count(g->second) == 0)
                place(place, name, 0);
        }
        for (const std::string &name : first_seen)
            place(place, name, 0);
        return out;
    }
};

// Where a label of the given width fits at x, among those placed already.
int label_lane(std::vector<std::vector<std::pair<double, double>>> &lanes, double x, double width) {
    for (size_t lane = 0; lane < lanes.size(); lane++) {
        bool free = std::none_of(lanes[lane].begin(), lanes[lane].end(), [&](const auto &span) {
            return x < span.second + 6 && span.first < x + width + 6;
        });
        if (free || lane + 1 == lanes.size()) {
            lanes[lane].emplace_back(x, x + width);
            return static_cast<int>(lane);
        }
    }
    return 0;
}

const char *marker_colour(marker_kind kind) {
    switch (kind) {
        case FAILOVER:
            return "#C00000";
        case FAILFORWARD:
            return "#00B0C0";
        case COMMAND:
            return "#0050C0";
        case RELOAD:
            return "#8000A0";
        case INJECTED:
            return "#E07000";
    }
    return "black";
}

}  // namespace

std::string timeline_svg(const std::vector<timeline_event> &events,
                         const timeline_picture &picture) {
    model m;
    m.read(events);
    std::vector<row *> rows = m.ordered();

    size_t longest = 8;
    for (const row *r : rows)
        longest = std::max(longest, r->name.size() + 2 * static_cast<size_t>(r->depth));
    const double left = 20 + static_cast<double>(longest) * CHAR_WIDTH;
    const double title_h = 28, lanes_h = LABEL_LANES * LANE_HEIGHT, axis_h = 22;
    const double top = title_h + lanes_h + axis_h;
    const double body_h = std::max<double>(rows.size(), 1) * ROW_HEIGHT;
    const double legend_top = top + body_h + axis_h + 14;
    const double width = left + PLOT_WIDTH + 30;
    const double span = m.end - m.start;
    auto x_of = [&](double t) { return left + (t - m.start) / span * PLOT_WIDTH; };

    std::ostringstream svg;
    std::vector<std::string> legend_states(m.states.begin(), m.states.end());
    std::sort(legend_states.begin(), legend_states.end(), [](const auto &a, const auto &b) {
        return tovrin_state_by_name(a) < tovrin_state_by_name(b);
    });
    const double legend_h = 22 * (std::ceil(legend_states.size() / 6.0) + 2) + 10;
    const double height = legend_top + legend_h;

    svg << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << number(width) << "\" height=\""
        << number(height) << "\" viewBox=\"0 0 " << number(width) << " " << number(height)
        << "\" font-family=\"DejaVu Sans, sans-serif\" font-size=\"12\">\n"
        << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";

    std::string title = picture.title;
    if (m.start >= EPOCH_TIMES) {
        time_t t = static_cast<time_t>(m.start);
        tm local{};
        char when[40];
        if (localtime_r(&t, &local) != nullptr &&
            strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &local) != 0)
            title += std::string(title.empty() ? "" : ", ") + "from " + when;
    }
    svg << "<text x=\"10\" y=\"19\" font-size=\"15\" font-weight=\"bold\">" << escaped(title)
        << "</text>\n";

    // Time axis above and below, with a light line across the rows at
    // every tick.
    const double steps[] = {1,   2,   5,    10,   15,   30,    60,    120,   300,
                            600, 900, 1800, 3600, 7200, 10800, 21600, 43200, 86400};
    double step = steps[std::size(steps) - 1];
    for (double s : steps) {
        if (span / s <= 12) {
            step = s;
            break;
        }
    }
    svg << "<g font-size=\"11\" fill=\"#444\">\n";
    for (double t = 0; t <= span + 1e-9; t += step) {
        double x = x_of(m.start + t);
        svg << "<line x1=\"" << number(x) << "\" y1=\"" << number(top - 4) << "\" x2=\""
            << number(x) << "\" y2=\"" << number(top + body_h + 4)
            << "\" stroke=\"#DDD\" stroke-width=\"1\"/>\n";
        for (double y : {top - 8, top + body_h + 16})
            svg << "<text x=\"" << number(x) << "\" y=\"" << number(y)
                << "\" text-anchor=\"middle\">" << clock_label(t) << "</text>\n";
    }
    svg << "</g>\n";

    // One row per conn: its name, its bands, and a bar while it is the
    // active member of its group.
    std::map<std::string, double> row_y;
    for (size_t i = 0; i < rows.size(); i++) {
        const row &r = *rows[i];
        double y = top + static_cast<double>(i) * ROW_HEIGHT;
        row_y[r.name] = y;
        if (i % 2 == 1)
            svg << "<rect x=\"0\" y=\"" << number(y) << "\" width=\"" << number(width)
                << "\" height=\"" << number(ROW_HEIGHT) << "\" fill=\"#F6F6F6\"/>\n";
        svg << "<text x=\"" << number(10 + r.depth * 2 * CHAR_WIDTH) << "\" y=\"" << number(y + 15)
            << "\"" << (m.groups.count(r.name) ? " font-weight=\"bold\"" : "") << ">"
            << escaped(r.name) << "</text>\n";
        for (const band &b : r.bands) {
            double x0 = x_of(b.from), x1 = x_of(b.to);
            std::string fill = state_fill(b.state);
            svg << "<rect x=\"" << number(x0) << "\" y=\"" << number(y + BAND_TOP) << "\" width=\""
                << number(std::max(x1 - x0, 0.5)) << "\" height=\"" << number(BAND_HEIGHT)
                << "\" fill=\"" << fill << "\"><title>"
                << escaped(r.name + ": " + b.state + " from " + clock_label(b.from - m.start) +
                           " to " + clock_label(b.to - m.start))
                << "</title></rect>\n";
            if (x1 - x0 > static_cast<double>(b.state.size()) * 6 + 8)
                svg << "<text x=\"" << number(x0 + 4) << "\" y=\"" << number(y + BAND_TOP + 11)
                    << "\" font-size=\"10\" fill=\"" << text_on(fill) << "\">" << escaped(b.state)
                    << "</text>\n";
        }
        // A conn down and back within one second leaves no band to see:
        // a tick says it was restarted there.
        std::set<long> ticks;
        for (const band &b : r.bands) {
            if (b.state == "down" && b.to == b.from && &b != &r.bands.front())
                ticks.insert(std::lround(x_of(b.from) * 2));
        }
        for (long twice : ticks)
            svg << "<line x1=\"" << number(twice / 2.0) << "\" y1=\"" << number(y + BAND_TOP)
                << "\" x2=\"" << number(twice / 2.0) << "\" y2=\""
                << number(y + BAND_TOP + BAND_HEIGHT)
                << "\" stroke=\"#444\" stroke-width=\"1.5\"/>\n";
        for (const auto &[from, to] : r.active)
            svg << "<rect x=\"" << number(x_of(from)) << "\" y=\""
                << number(y + BAND_TOP + BAND_HEIGHT + 1) << "\" width=\""
                << number(std::max(x_of(to) - x_of(from), 0.5))
                << "\" height=\"3\" fill=\"black\"><title>" << escaped(r.name)
                << " active in its group</title></rect>\n";
    }

    // Markers: lines across every row for commands and reloads, labelled in
    // lanes above the axis; symbols on a group's row for its moves and on
    // a conn's row for what the script did to it.
    std::vector<std::vector<std::pair<double, double>>> lanes(LABEL_LANES);
    for (const marker &k : m.markers) {
        double x = x_of(k.time);
        const char *colour = marker_colour(k.kind);
        auto where = row_y.find(k.conn);
        if (k.kind == COMMAND || k.kind == RELOAD || where == row_y.end()) {
            double w = static_cast<double>(k.text.size()) * 6;
            int lane = label_lane(lanes, x, w);
            double ly = title_h + (lane + 1) * LANE_HEIGHT - 3;
            svg << "<line x1=\"" << number(x) << "\" y1=\"" << number(ly + 2) << "\" x2=\""
                << number(x) << "\" y2=\"" << number(top + body_h) << "\" stroke=\"" << colour
                << "\" stroke-width=\"1.5\" stroke-dasharray=\""
                << (k.kind == RELOAD ? "6,3" : "2,2") << "\"/>\n"
                << "<text x=\"" << number(x + 2) << "\" y=\"" << number(ly)
                << "\" font-size=\"11\" fill=\"" << colour << "\">" << escaped(k.text)
                << "</text>\n";
            continue;
        }
        double y = where->second;
        if (k.kind == INJECTED) {
            double cy = y + BAND_TOP + BAND_HEIGHT / 2;
            svg << "<path d=\"M" << number(x) << " " << number(cy - 6) << " l5 6 l-5 6 l-5 -6 z\""
                << " fill=\"" << colour << "\" stroke=\"black\" stroke-width=\"1\"><title>"
                << escaped(k.text) << "</title></path>\n";
            continue;
        }
        double tip = k.kind == FAILOVER ? y + BAND_TOP + 10 : y + BAND_TOP + 1;
        svg << "<path d=\"M" << number(x) << " " << number(tip) << " l-6 "
            << (k.kind == FAILOVER ? "-10" : "10") << " l12 0 z\" fill=\"" << colour
            << "\" stroke=\"black\" stroke-width=\"1\"/>\n"
            << "<text x=\"" << number(x + 8) << "\" y=\"" << number(y + BAND_TOP + 11)
            << "\" font-size=\"10\" font-weight=\"bold\" fill=\"" << colour
            << (x + 8 + static_cast<double>(k.text.size()) * 6.5 > width
                    ? "\" text-anchor=\"end\" transform=\"translate(-16 0)"
                    : "")
            << "\" stroke=\"white\" stroke-width=\"3\" paint-order=\"stroke\">" << escaped(k.text)
            << "</text>\n";
    }

    // The legend: every state drawn, then what the marks mean.
    double ly = legend_top;
    svg << "<g font-size=\"11\">\n";
    for (size_t i = 0; i < legend_states.size(); i++) {
        double x = 10 + static_cast<double>(i % 6) * 170, y = ly + static_cast<double>(i / 6) * 22;
        svg << "<rect x=\"" << number(x) << "\" y=\"" << number(y) << "\" width=\"14\" "
            << "height=\"14\" fill=\"" << state_fill(legend_states[i])
            << "\" stroke=\"#666\" stroke-width=\"0.5\"/><text x=\"" << number(x + 20) << "\" y=\""
            << number(y + 11) << "\">" << escaped(legend_states[i]) << "</text>\n";
    }
    double my = ly + std::ceil(legend_states.size() / 6.0) * 22;
    struct key_item {
        const char *shape;
        const char *label;
    };
    const key_item keys[] = {
        {"<rect x=\"X\" y=\"Y\" width=\"14\" height=\"3\" transform=\"translate(0 6)\" "
         "fill=\"black\"/>",
         "active member"},
        {"<path d=\"MX Y l14 0 l-7 12 z\" fill=\"#C00000\" stroke=\"black\"/>", "failover"},
        {"<path d=\"MX Y l7 12 l-14 0 z\" transform=\"translate(7 0)\" fill=\"#00B0C0\" "
         "stroke=\"black\"/>",
         "failforward"},
        {"<line x1=\"X\" y1=\"Y\" x2=\"X\" y2=\"Y\" transform=\"translate(7 0)\" "
         "stroke=\"#444\" stroke-width=\"2\"/>",
         "restarted"},
        {"<line x1=\"X\" y1=\"Y\" x2=\"X\" y2=\"Y\" transform=\"translate(7 0)\" "
         "stroke=\"#0050C0\" stroke-width=\"2\" stroke-dasharray=\"2,2\"/>",
         "operator command"},
        {"<line x1=\"X\" y1=\"Y\" x2=\"X\" y2=\"Y\" transform=\"translate(7 0)\" "
         "stroke=\"#8000A0\" stroke-width=\"2\" stroke-dasharray=\"6,3\"/>",
         "reload"},
        {"<path d=\"MX Y l6 7 l-6 7 l-6 -7 z\" transform=\"translate(7 0)\" "
         "fill=\"#E07000\" stroke=\"black\"/>",
         "injected by the script"},
    };
    for (size_t i = 0; i < std::size(keys); i++) {
        double x = 10 + static_cast<double>(i % 6) * 170;
        if (i == 6)
            my += 22;
        std::string shape = keys[i].shape;
        // X and Y place the symbol; a vertical line spans the swatch.
        for (size_t at; (at = shape.find("\"X\"")) != std::string::npos;)
            shape.replace(at, 3, "\"" + number(x) + "\"");
        size_t first_y = shape.find("\"Y\"");
        if (first_y != std::string::npos)
            shape.replace(first_y, 3, "\"" + number(my) + "\"");
        if (size_t second = shape.find("\"Y\""); second != std::string::npos)
            shape.replace(second, 3, "\"" + number(my + 14) + "\"");
        for (size_t at; (at = shape.find("X Y")) != std::string::npos;)
            shape.replace(at, 3, number(x) + " " + number(my));
        svg << shape << "<text x=\"" << number(x + 20) << "\" y=\"" << number(my + 11) << "\">"
            << keys[i].label << "</text>\n";
    }
    svg << "</g>\n</svg>\n";
    return svg.str();
}

bool timeline_svg_write(const std::vector<timeline_event> &events, const timeline_picture &picture,
                        const std::string &path) {
    std::ofstream out(path, std::ios::trunc);
    out << timeline_svg(events, picture);
    return static_cast<bool>(out.flush());
}
