#include "sim/timeline.h"

#include <charconv>
#include <cmath>

namespace {

std::string_view trimmed(std::string_view text) {
    size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos)
        return {};
    size_t last = text.find_last_not_of(" \t\r");
    return text.substr(first, last - first + 1);
}

}  // namespace

std::string timeline_format(const timeline_event &event) {
    char time[40];
    snprintf(time, sizeof time, "%.3f", event.time);
    std::string line = std::string(time) + " " + event.verb;
    if (!event.text.empty())
        line += " " + event.text;
    for (char &c : line) {
        if (c == '\n' || c == '\r')
            c = ' ';
    }
    return line;
}

std::string timeline_word(std::string_view text, std::string *rest) {
    text = trimmed(text);
    size_t blank = text.find_first_of(" \t");
    std::string_view word = text.substr(0, blank);
    if (rest != nullptr)
        *rest = blank == std::string_view::npos ? "" : std::string(trimmed(text.substr(blank)));
    return std::string(word);
}

std::optional<timeline_event> timeline_parse(std::string_view line) {
    std::string rest;
    std::string time = timeline_word(line, &rest);
    timeline_event event;
    auto [end, ec] = std::from_chars(time.data(), time.data() + time.size(), event.time);
    if (time.empty() || ec != std::errc() || end != time.data() + time.size() ||
        !std::isfinite(event.time))
        return std::nullopt;
    event.verb = timeline_word(rest, &event.text);
    if (event.verb.empty())
        return std::nullopt;
    return event;
}

std::vector<timeline_event> timeline_read(std::istream &in) {
    std::vector<timeline_event> events;
    for (std::string line; std::getline(in, line);) {
        if (auto event = timeline_parse(line))
            events.push_back(std::move(*event));
    }
    return events;
}
