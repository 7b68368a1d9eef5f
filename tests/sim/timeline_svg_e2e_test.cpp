// The timeline picture: valid XML that a real renderer draws at the size it
// claims, with the rows, bands and markers a reader looks for.

#include "sim/timeline_svg.h"

#include <gtest/gtest.h>

#include <cmath>
#include <regex>
#include <sstream>

#include "support/test_inst.h"

namespace {

int run(const strings &argv, const temp_dir &dir) {
    child_process p(argv, dir.file("tool.out"));
    return p.wait_exit().value_or(-1);
}

// The text of every element of the given name, in document order.
strings texts(const std::string &svg) {
    strings out;
    std::regex text("<text [^>]*>([^<]*)</text>");
    for (auto it = std::sregex_iterator(svg.begin(), svg.end(), text); it != std::sregex_iterator();
         ++it)
        out.push_back((*it)[1]);
    return out;
}

uint32_t be32(const std::string &bytes, size_t at) {
    uint32_t v = 0;
    for (size_t i = 0; i < 4; i++)
        v = v << 8 | static_cast<unsigned char>(bytes[at + i]);
    return v;
}

// Writes svg, checks it with xmllint and renders it with rsvg-convert; the
// PNG must have the size the SVG declares.
void validate_and_render(const std::string &svg, const temp_dir &dir) {
    dir.write_file("t.svg", svg);
    EXPECT_EQ(run({"/usr/bin/env", "xmllint", "--noout", dir.file("t.svg")}, dir), 0)
        << dir.read_file("tool.out");
    ASSERT_EQ(
        run({"/usr/bin/env", "rsvg-convert", "-o", dir.file("t.png"), dir.file("t.svg")}, dir), 0)
        << dir.read_file("tool.out");
    std::string png = dir.read_file("t.png");
    ASSERT_GT(png.size(), 24u);
    EXPECT_EQ(png.substr(1, 3), "PNG");
    std::smatch size;
    ASSERT_TRUE(
        std::regex_search(svg, size, std::regex("width=\"([0-9.]+)\" height=\"([0-9.]+)\"")));
    EXPECT_EQ(be32(png, 16), static_cast<uint32_t>(std::lround(std::stod(size[1]))));
    EXPECT_EQ(be32(png, 20), static_cast<uint32_t>(std::lround(std::stod(size[2]))));
}

TEST(TimelineSvg, SimulatedFailoverRendersWithItsRowsBandsAndMarkers) {
    std::istringstream golden(test_file("sim/golden/failover.timeline"));
    std::string svg = timeline_svg(timeline_read(golden), {"failover & <friends>"});
    temp_dir dir;
    validate_and_render(svg, dir);

    strings t = texts(svg);
    // The title, escaped; rows in configuration order, the group's members
    // beneath it; the axis in minutes from the start.
    EXPECT_EQ(t[0], "failover &amp; &lt;friends&gt;");
    auto at = [&](const std::string &s) { return std::find(t.begin(), t.end(), s) - t.begin(); };
    EXPECT_LT(at("uplinks"), at("wan1"));
    EXPECT_LT(at("wan1"), at("wan2"));
    EXPECT_LT(at("wan2"), at("vpn"));
    EXPECT_LT(at("vpn"), static_cast<long>(t.size()));
    EXPECT_LT(at("2:00"), static_cast<long>(t.size()));
    // A band per state visit, coloured as the graph dump colours states,
    // and the active member underlined while it is active.
    EXPECT_NE(svg.find("fill=\"#119911\"><title>wan1: up from 0:05 to 1:15</title>"),
              std::string::npos);
    EXPECT_NE(svg.find("fill=\"#33FF55\"><title>wan2: tested from 0:05 to 1:15</title>"),
              std::string::npos);
    EXPECT_NE(svg.find("<title>wan2 active in its group</title>"), std::string::npos);
    // Both moves of the group, and the script's two injections on wan1.
    EXPECT_LT(at("failover to wan2"), at("failforward to wan1"));
    EXPECT_LT(at("failforward to wan1"), static_cast<long>(t.size()));
    EXPECT_NE(svg.find("<title>test wan1 fails</title>"), std::string::npos);
    EXPECT_NE(svg.find("<title>test wan1 passes</title>"), std::string::npos);
}

// A recording: wall-clock times, members seen before their group, a move
// back to an earlier member, an operator's command and a reload.
TEST(TimelineSvg, RecordedTimelineKeepsGroupsTogetherAndTellsMovesApart) {
    const std::string recorded =
        "1767225600.000 state b down\n"
        "1767225600.000 state a up\n"
        "1767225600.000 state g up\n"
        "1767225600.000 set tovrin.g.active-connection-name a\n"
        "1767225600.000 set tovrin.g.connection-names a,b\n"
        "1767225630.500 cmd g,cli,failover\n"
        "1767225631.000 set tovrin.g.active-connection-name b\n"
        "1767225631.000 set tovrin.g.failover-timestamp 1767225631\n"
        "1767225660.000 reload /etc/config/new.conf\n"
        "1767225690.000 set tovrin.g.active-connection-name a\n"
        "1767225690.000 set tovrin.g.failover-timestamp 1767225690\n"
        "1767225690.000 state x\xc3\xa9<y up\n"
        "1767225690.000 set tovrin.h.connection-names z\n"
        "1767225700.000 del tovrin.h.status\n"
        "1767225700.000 del tovrin.b.status\n"
        "1767225710.000 del tovrin.b.status\n"
        "junk line\n"
        "1767225720.000 end\n";
    std::istringstream in(recorded);
    setenv("TZ", "UTC", 1);
    std::string svg = timeline_svg(timeline_read(in), {"rec"});
    temp_dir dir;
    validate_and_render(svg, dir);
    strings t = texts(svg);
    EXPECT_EQ(t[0], "rec, from 2026-01-01 00:00:00");
    auto at = [&](const std::string &s) { return std::find(t.begin(), t.end(), s) - t.begin(); };
    EXPECT_LT(at("g"), at("a"));
    EXPECT_LT(at("a"), at("b"));
    EXPECT_LT(at("b"), at("xé&lt;y"));
    EXPECT_LT(at("xé&lt;y"), static_cast<long>(t.size()));
    EXPECT_LT(at("failover to b"), at("failforward to a"));
    EXPECT_LT(at("failforward to a"), static_cast<long>(t.size()));
    EXPECT_LT(at("cmd g,cli,failover"), static_cast<long>(t.size()));
    EXPECT_LT(at("reload new.conf"), static_cast<long>(t.size()));
    EXPECT_LT(at("2:00"), static_cast<long>(t.size()));
    EXPECT_EQ(at("2:30"), static_cast<long>(t.size()));  // ends at the end line
    // A deleted status ends its conn's band there, once.
    EXPECT_NE(svg.find("<title>b: down from 0:00 to 1:40</title>"), std::string::npos);
}

}  // namespace
