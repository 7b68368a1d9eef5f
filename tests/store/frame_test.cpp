#include "store/frame.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(FrameLength, IsBigEndian) {
    const unsigned char a[4] = {0, 0, 0, 0x18};
    const unsigned char b[4] = {0x01, 0x02, 0x03, 0x04};
    const unsigned char c[4] = {0xff, 0xff, 0xff, 0xff};
    EXPECT_EQ(tovrin_frame_length(a), 24u);
    EXPECT_EQ(tovrin_frame_length(b), 0x01020304u);
    EXPECT_EQ(tovrin_frame_length(c), 0xffffffffu);
}

TEST(NotificationParse, Fields) {
    struct parse_case {
        std::string body;
        int type;
        std::string key;
        std::string value;
    };
    const parse_case cases[] = {
        {"8\x1ek\x1e"
         "1\x1e"
         "5\x1eval",
         8, "k", "val"},
        // The value may hold separators; it ends at CR or LF.
        {"8\x1ek\x1e"
         "1\x1e"
         "5\x1e"
         "a\x1e"
         "b",
         8, "k",
         "a\x1e"
         "b"},
        {"8\x1ek\x1e"
         "1\x1e"
         "5\x1eval\r\n",
         8, "k", "val"},
        {"8\x1ek\x1e"
         "1\x1e"
         "5\x1eval\nignored",
         8, "k", "val"},
        // Delimiter runs collapse among the first four fields.
        {"\x1e\r8\x1e\x1ek\n\n1\r5\x1eval", 8, "k", "val"},
        // After the fourth field's delimiter, line breaks are skipped but a
        // further separator belongs to the value.
        {"8\x1ek\x1e"
         "1\x1e"
         "5\x1e\r\nval",
         8, "k", "val"},
        {"8\x1ek\x1e"
         "1\x1e"
         "5\x1e\x1eval",
         8, "k", "\x1eval"},
        {"7\x1ek\x1e"
         "1\x1e"
         "5\x1eval",
         7, "k", "val"},
        // Missing pieces.
        {"8\x1ek\x1e"
         "1\x1e"
         "5",
         8, "k", ""},
        {"8\x1ek\x1e"
         "1\x1e"
         "5\x1e\r\n",
         8, "k", ""},
        {"8\x1ek", 8, "k", ""},
        {"8", 8, "", ""},
        {"", 0, "", ""},
        {"x\x1ek\x1e"
         "1\x1e"
         "5\x1ev",
         0, "k", "v"},
    };
    for (const parse_case &c : cases) {
        tovrin_notification n = tovrin_notification_parse(c.body);
        EXPECT_EQ(n.type, c.type) << c.body;
        EXPECT_EQ(std::string(n.key), c.key) << c.body;
        EXPECT_EQ(std::string(n.value), c.value) << c.body;
    }
}

}  // namespace
