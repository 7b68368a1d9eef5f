#include "command/tokenizer.h"

#include "support/test_inst.h"

const char in_container[] = "str2argv - parse error, still in container";
const char in_var[] = "str2argv - parse error, still in var";
const char escape[] = "str2argv - parse error, unused escape (\\)";
const char quotes[] = "str2argv - parse error - bad quotes";
const char max_argv[] = "argv_token_finish: reached max argv length (255)";
const char max_token[] = "argv_token_addch: reached max token length (1024)";
const char max_name[] = "str2argv: var name exceeded limit (100)";

struct split_case {
    std::string command;
    strings tokens;
    strings messages = {};  // all at priority 0, in order
};

// Words w0 to w<n - 1>, as tokens.
static strings words(int n) {
    strings out;
    for (int i = 0; i < n; i++)
        out.push_back("w" + std::to_string(i));
    return out;
}

TEST(Tokenizer, SplitsQuotesEscapesReferencesWithinTheLimits) {
    test_inst t("conn wan\n\tparent up\n\tvar v 1 2\n\tvar quote say\"hi\"\n\tvar long " +
                std::string(600, 'L') + "\n\tvar " + std::string(99, 'n') + " found\n\tlog none\n" +
                "conn up\n\tvar v up\n\tlog none\n");
    const std::string full(1023, 't'), name99(99, 'n'), head(500, 'h');
    // clang-format off
    const split_case cases[] = {
        {"", {}}, {"echo hello  world\n", {"echo", "hello", "world"}}, {"a\tb\nc", {"a", "b", "c"}},
        {"echo a\rb\r", {"echo", "a\rb\r"}}, {"a \"\" b ''", {"a", "", "b", ""}},
        {"say \"it's a b\" 'he \"x\"'", {"say", "it's a b", "he \"x\""}},
        // A closing quote ends the token at once.
        {"\"ab\"cd 'ef'\"gh\"", {"ab", "cd", "ef", "gh"}},
        // Quotes inside an unquoted word are dropped and only have to pair.
        {"ab\"cd", {"abcd"}, {quotes}}, {"a\"b'c'd\"e a'b\"c\"d'e", {"abcde", "abcde"}},
        {"a\"b'c\"d'e", {"abcde"}, {quotes}}, {"a\"b c\"d", {"ab", "cd"}},
        {"a\\ b 100\\% \\\"x\\' a\\\\b", {"a b", "100%", "\"x'", "a\\b"}},
        {"a b\\", {"a", "b"}, {escape}},
        // Inside quotes only the container's own quote can be escaped.
        {"\"a\\\"b\" 'a\\'b' \"a\\nb\" 'a\\\"b'", {"a\"b", "a'b", "a\\nb", "a\\\"b"}},
        // Expanded text is never split or parsed again.
        {"a%v%b %quote% \"x %v% y\" '%v%' %v%%v%", {"a1b", "say\"hi\"", "x 1 y", "1", "11"}},
        {"a%missing%b echo %missing% x", {"ab", "echo", "", "x"}}, {"echo %missing%", {"echo"}},
        {"\"%missing%\"", {""}},
        {"%v% %all:v% %parents_all:v% %local:v% %allx:v%", {"1", "1", "up", "1", "1"}},
        {"echo ab%var", {"echo", "ab"}, {in_var}}, {"echo \"abc", {"echo", "abc"}, {in_container}},
        {"a\"b \"c%v", {"ab", "c"}, {in_container, in_var, quotes}},
        {"a\"b \\", {"ab"}, {escape, quotes}}, {"caf\xc3\xa9 \xff", {"caf\xc3\xa9", "\xff"}},
        // A token holds 1023 characters; each one more is dropped, said once.
        {full + " x", {full, "x"}}, {"\"" + full + "uv\"", {full}, {max_token, max_token}},
        {head + "%long%", {head + std::string(523, 'L')}},
        {head + "%long%z", {head + std::string(523, 'L')}, {max_token}},
        // A name holds 99 characters; each one more is dropped, said once.
        {"%" + name99 + "%", {"found"}},
        {"a%" + name99 + "xy%b", {"afoundb"}, {max_name, max_name}},
        // 254 tokens at most: every later attempt to store one says so.
        {join(words(254)), words(254)},
        {join(words(256)) + " x", words(254), {max_argv, max_argv, max_argv}},
    };
    // clang-format on
    for (const split_case &c : cases) {
        SCOPED_TRACE(c.command.substr(0, 60));
        log_capture log;
        std::unique_ptr<parsed_argv> args = str2argv(t.conn("wan"), c.command.c_str());
        ASSERT_NE(args, nullptr);
        EXPECT_EQ(args->argv, c.tokens);
        EXPECT_EQ(args->argc, static_cast<int>(c.tokens.size()));
        for (const log_record &r : log.records)
            EXPECT_EQ(r.priority, TOVRIN_LOG_FATAL);
        EXPECT_EQ(log.messages(), c.messages);
    }
}
