#include "platform/strappend.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace {

struct strappend_case {
    std::string text;
    std::string_view value;
    const char *separator;
    std::string expected;
};

TEST(Strappend, JoinsTextSeparatorAndValue) {
    const strappend_case cases[] = {
        {"", "a", nullptr, "a"},
        {"a", "b", " ", "a b"},
        {"a", "b", nullptr, "ab"},
        {"a", "b", "", "ab"},
        // The separator is the caller's choice; it is added even to no text.
        {"", "a", " ", " a"},
        {"a b", "", " ", "a b "},
        {"", "", nullptr, ""},
        {"x", "y", ", ", "x, y"},
        // Values are taken by length, not up to a NUL.
        {"a", std::string_view("b\0c", 3), " ", std::string("a b\0c", 5)},
    };
    for (const strappend_case &c : cases) {
        EXPECT_EQ(strappend(c.text, c.value, c.separator), c.expected)
            << '"' << c.text << "\" + " << (c.separator ? c.separator : "(none)");
    }
}

// The way variable expansion uses it: the text is moved in, one value after
// another, with a blank only between values.
TEST(Strappend, AccumulatesWhenTheTextIsMovedIn) {
    std::string text;
    for (std::string_view value : {"wan0", "wan1", "lte0"}) {
        // Chosen before the call: the moved-from text may already be empty
        // when another argument is evaluated.
        const char *separator = text.empty() ? nullptr : " ";
        text = strappend(std::move(text), value, separator);
    }
    EXPECT_EQ(text, "wan0 wan1 lte0");

    // A long text keeps its contents whether or not it is reused in place.
    std::string long_text(1000, 'x');
    std::string joined = strappend(std::move(long_text), "y", "-");
    EXPECT_EQ(joined.size(), 1002u);
    EXPECT_EQ(joined.substr(998), "xx-y");
}

}  // namespace
