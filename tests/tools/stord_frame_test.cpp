// The stand-in store's frame reader: frames however the stream is cut, and
// the longest body a peer may announce.

#include "stord/frame.h"

#include <gtest/gtest.h>

TEST(StordFrame, FramesHoweverTheStreamIsCutUpToTheLongestBody) {
    using result = stord_frame_reader::result;
    const std::string stream = stord_frame_encode("first") + stord_frame_encode("second");
    stord_frame_reader reader;
    std::string body;
    // The first frame and two bytes of the second, then the rest.
    reader.feed(stream.substr(0, 11));
    EXPECT_EQ(reader.next(body), result::frame);
    EXPECT_EQ(body, "first");
    EXPECT_EQ(reader.next(body), result::incomplete);
    reader.feed(stream.substr(11));
    EXPECT_EQ(reader.next(body), result::frame);
    EXPECT_EQ(body, "second");
    // A body of 1 MiB and a byte.
    stord_frame_reader greedy;
    greedy.feed(std::string("\x00\x10\x00\x01", 4));
    EXPECT_EQ(greedy.next(body), result::oversized);
}
