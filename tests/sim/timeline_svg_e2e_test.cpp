// The timeline picture: valid XML that a real renderer draws at the size it
// claims, with the rows, bands and markers a reader looks for.

#include "sim/timeline_svg.h"

#include <gtest/gtest.h>

#include <cmath>
#include <regex>
#include <sstream>

#include "support/test_inst.h"

namespace {

// Draws the timeline golden/NAME.timeline as golden/NAME.svg shows it,
// checks it with xmllint and renders it with rsvg-convert: the PNG must
// have the size the SVG declares.
std::string drawn(const std::string &name, const std::string &title) {
    std::istringstream in(test_file("sim/golden/" + name + ".timeline"));
    std::string svg = timeline_svg(timeline_read(in), {title});
    // Reviewed by eye once; what a reader looks for in it is asserted below.
    EXPECT_EQ(svg, test_file("sim/golden/" + name + ".svg")) << name;
    temp_dir dir;
    dir.write_file("t.svg", svg);
    for (const strings &argv :
         {strings{"/usr/bin/env", "xmllint", "--noout", dir.file("t.svg")},
          {"/usr/bin/env", "rsvg-convert", "-o", dir.file("t.png"), dir.file("t.svg")}}) {
        child_process p(argv, dir.file("tool.out"));
        EXPECT_EQ(p.wait_exit(), 0) << dir.read_file("tool.out");
    }
    std::string png = dir.read_file("t.png");
    std::smatch size;
    EXPECT_TRUE(
        std::regex_search(svg, size, std::regex("width=\"([0-9.]+)\" height=\"([0-9.]+)\"")));
    // The PNG header: its width and height, big-endian, at offsets 16 and 20.
    auto be32 = [&](size_t at) {
        uint32_t v = 0;
        for (size_t i = at; i < at + 4 && i < png.size(); i++)
            v = v << 8 | static_cast<unsigned char>(png[i]);
        return v;
    };
    EXPECT_EQ(png.substr(1, 3), "PNG");
    EXPECT_EQ(be32(16), std::lround(std::stod(size[1])));
    EXPECT_EQ(be32(20), std::lround(std::stod(size[2])));
    return svg;
}

// Whether the picture has each of parts, in this order.
testing::AssertionResult in_order(const std::string &svg, const strings &parts) {
    size_t at = 0;
    for (const std::string &part : parts)
        if ((at = svg.find(part, at)) == std::string::npos)
            return testing::AssertionFailure() << "'" << part << "' missing or out of order";
    return testing::AssertionSuccess();
}

TEST(TimelineSvg, SimulatedFailoverRendersWithItsRowsBandsAndMarkers) {
    // The title, escaped; rows in configuration order, the group's members
    // beneath it; the axis in minutes from the start; both moves of the
    // group. A band per state visit, coloured as the graph dump colours
    // states, the active member underlined while it is active, and the
    // script's two injections on wan1.
    std::string svg = drawn("failover", "failover & <friends>");
    EXPECT_TRUE(in_order(
        svg, {">failover &amp; &lt;friends&gt;<", ">uplinks<", ">wan1<", ">wan2<", ">vpn<"}));
    EXPECT_TRUE(in_order(svg, {">failover to wan2<", ">failforward to wan1<"}));
    for (const char *part : {">2:00<", "fill=\"#119911\"><title>wan1: up from 0:05 to 1:15</title>",
                             "fill=\"#33FF55\"><title>wan2: tested from 0:05 to 1:15</title>",
                             "<title>wan2 active in its group</title>",
                             "<title>test wan1 fails</title>", "<title>test wan1 passes</title>"})
        EXPECT_NE(svg.find(part), std::string::npos) << part;
}

// A recording (an input beside the pictures): wall-clock times, members
// seen before their group, a move back to an earlier member, an operator's
// command, a reload, and a line that is no event.
TEST(TimelineSvg, RecordedTimelineKeepsGroupsTogetherAndTellsMovesApart) {
    setenv("TZ", "UTC", 1);
    std::string svg = drawn("recorded", "rec");
    EXPECT_TRUE(
        in_order(svg, {">rec, from 2026-01-01 00:00:00<", ">g<", ">a<", ">b<", ">xé&lt;y<"}));
    EXPECT_TRUE(in_order(svg, {">failover to b<", ">failforward to a<"}));
    // The command, the reload and a deleted status ending its conn's band
    // there, once; the axis, in steps of 15 s, ends at the end line.
    for (const char *part : {">cmd g,cli,failover<", ">reload new.conf<", ">0:15<", ">2:30<",
                             "<title>b: down from 0:00 to 1:40</title>"})
        EXPECT_NE(svg.find(part), std::string::npos) << part;
    EXPECT_EQ(svg.find(">2:45<"), std::string::npos);
}

}  // namespace
