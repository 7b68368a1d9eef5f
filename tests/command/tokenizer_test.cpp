#include "command/tokenizer.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "command/var.h"
#include "supervise/conn.h"
#include "supervise/inst.h"
#include "support/log_capture.h"

namespace {

using strings = std::vector<std::string>;

const char still_in_container[] = "str2argv - parse error, still in container";
const char still_in_var[] = "str2argv - parse error, still in var";
const char unused_escape[] = "str2argv - parse error, unused escape (\\)";
const char bad_quotes[] = "str2argv - parse error - bad quotes";
const char max_argv[] = "argv_token_finish: reached max argv length (255)";
const char max_token[] = "argv_token_addch: reached max token length (1024)";
const char var_name_limit[] = "str2argv: var name exceeded limit (100)";

// One conn in force with a few variables, on whose behalf commands are
// tokenized.
class Tokenizer : public ::testing::Test {
  protected:
    void SetUp() override {
        inst.base.reset(event_base_new());
        inst.globals = tovrin_globals_new();
        inst.new_globals = tovrin_globals_new();
        conn = inst.conns.push_back(
            tovrin_conn_new(&inst, "wan", TOVRIN_CONN, 60, 30, 30, 30, 1, -1, 0));
        conn->log_mask = 0;
        ASSERT_EQ(tovrin_conn_add_var(conn, "v", "1 2"), 0);
        ASSERT_EQ(tovrin_conn_add_var(conn, "quote", "say \"hi\""), 0);
        ASSERT_EQ(tovrin_conn_add_var(conn, "empty", ""), 0);
    }

    // The tokens of command, and every message logged while it was split.
    strings split(const std::string &command, std::vector<log_record> *logged = nullptr) {
        log_capture log;
        std::unique_ptr<parsed_argv> args = str2argv(conn, command.c_str());
        EXPECT_NE(args, nullptr);
        if (logged != nullptr)
            *logged = log.records();
        if (args == nullptr)
            return {};
        EXPECT_EQ(args->argc, static_cast<int>(args->argv.size()));
        EXPECT_FALSE(args->out_of_memory);
        return args->argv;
    }

    static std::vector<log_record> fatal(const std::vector<std::string> &messages) {
        std::vector<log_record> out;
        for (const std::string &m : messages)
            out.push_back(log_record{TOVRIN_LOG_FATAL, m});
        return out;
    }

    tovrin_inst inst;
    tovrin_conn *conn = nullptr;
};

struct split_case {
    const char *command;
    strings tokens;
    std::vector<std::string> messages;  // all at priority 0, in order
};

TEST_F(Tokenizer, SplitsQuotesEscapesAndReferences) {
    const split_case cases[] = {
        {"", {}, {}},
        {" \t\n ", {}, {}},
        {"echo hello  world", {"echo", "hello", "world"}, {}},
        // Configured commands keep their line feed; it ends the last token.
        {"echo hi\n", {"echo", "hi"}, {}},
        {"a\tb\nc", {"a", "b", "c"}, {}},
        // Carriage return is an ordinary character.
        {"echo a\rb\r", {"echo", "a\rb\r"}, {}},
        // Empty quotes give an empty token, inside and at the end.
        {"echo \"\"", {"echo", ""}, {}},
        {"a \"\" b", {"a", "", "b"}, {}},
        {"a '' b ''", {"a", "", "b", ""}, {}},
        // Each kind of quote holds the other kind and blanks.
        {"say \"it's a b\"", {"say", "it's a b"}, {}},
        {"say 'he said \"hi there\"'", {"say", "he said \"hi there\""}, {}},
        // A closing quote ends the token at once.
        {"\"ab\"cd", {"ab", "cd"}, {}},
        {"'ab'\"cd\"", {"ab", "cd"}, {}},
        // Quotes inside an unquoted word are dropped and only have to pair.
        {"ab\"cd", {"abcd"}, {bad_quotes}},
        {"a\"b'c'd\"e", {"abcde"}, {}},
        {"a'b\"c\"d'e", {"abcde"}, {}},
        {"a\"b'c\"d'e", {"abcde"}, {bad_quotes}},
        {"a\"b c\"d", {"ab", "cd"}, {}},
        // Backslash outside quotes: the next character is literal.
        {"a\\ b", {"a b"}, {}},
        {"100\\%", {"100%"}, {}},
        {"\\\"x\\'", {"\"x'"}, {}},
        {"a\\\\b", {"a\\b"}, {}},
        {"a b\\", {"a", "b"}, {unused_escape}},
        // Inside quotes only the container quote can be escaped.
        {"\"a\\\"b\"", {"a\"b"}, {}},
        {"'a\\'b'", {"a'b"}, {}},
        {"\"a\\nb\"", {"a\\nb"}, {}},
        {"'a\\\"b'", {"a\\\"b"}, {}},
        {"\"a\\\\b\"", {"a\\\\b"}, {}},
        // References: expanded text is never split or re-parsed.
        {"a%v%b", {"a1 2b"}, {}},
        {"%quote%", {"say \"hi\""}, {}},
        {"\"x %v% y\"", {"x 1 2 y"}, {}},
        {"'%v%'", {"1 2"}, {}},
        {"a%missing%b", {"ab"}, {}},
        {"%v%%v%", {"1 21 2"}, {}},
        // A reference that finds nothing leaves no trace, but still starts a
        // token that a blank or a closing quote stores.
        {"echo %missing%", {"echo"}, {}},
        {"echo %empty%", {"echo"}, {}},
        {"echo %missing% x", {"echo", "", "x"}, {}},
        {"\"%missing%\"", {""}, {}},
        // A reference left open is dropped; what came before still counts.
        {"echo ab%var", {"echo", "ab"}, {still_in_var}},
        {"echo \"abc", {"echo", "abc"}, {still_in_container}},
        {"echo \"", {"echo"}, {still_in_container}},
        // Everything left open is reported, in a fixed order.
        {"a\"b \"c%v", {"ab", "c"}, {still_in_container, still_in_var, bad_quotes}},
        {"a\"b \\", {"ab"}, {unused_escape, bad_quotes}},
        // Bytes above 0x7f are ordinary characters.
        {"caf\xc3\xa9 \xff", {"caf\xc3\xa9", "\xff"}, {}},
    };
    for (const split_case &c : cases) {
        SCOPED_TRACE(c.command);
        std::vector<log_record> logged;
        EXPECT_EQ(split(c.command, &logged), c.tokens);
        EXPECT_EQ(logged, fatal(c.messages));
    }
}

TEST_F(Tokenizer, NullCommandOrConnIsHarmless) {
    log_capture log;
    std::unique_ptr<parsed_argv> args = str2argv(conn, nullptr);
    ASSERT_NE(args, nullptr);
    EXPECT_EQ(args->argc, 0);
    // Without a conn a reference finds nothing.
    args = str2argv(nullptr, "echo %v% x");
    ASSERT_NE(args, nullptr);
    EXPECT_EQ(args->argv, (strings{"echo", "", "x"}));
    EXPECT_TRUE(log.records().empty());
}

TEST_F(Tokenizer, TokenHoldsAtMost1023Characters) {
    const std::string full(1023, 't');
    std::vector<log_record> logged;
    EXPECT_EQ(split(full + " x", &logged), (strings{full, "x"}));
    EXPECT_TRUE(logged.empty());

    EXPECT_EQ(split(full + "u x", &logged), (strings{full, "x"}));
    EXPECT_EQ(logged, fatal({max_token}));

    // One message per character dropped, also inside quotes.
    EXPECT_EQ(split("\"" + full + "uvw\"", &logged), (strings{full}));
    EXPECT_EQ(logged, fatal({max_token, max_token, max_token}));
}

TEST_F(Tokenizer, ExpandedValueIsCutSilentlyToTheTokenLimit) {
    ASSERT_EQ(tovrin_conn_add_var(conn, "long", std::string(600, 'L')), 0);
    std::vector<log_record> logged;
    const std::string head(500, 'h');
    strings tokens = split(head + "%long%", &logged);
    ASSERT_EQ(tokens.size(), 1u);
    EXPECT_EQ(tokens[0], head + std::string(523, 'L'));
    EXPECT_TRUE(logged.empty());

    // Characters after a full token are dropped with the message.
    tokens = split(head + "%long%z", &logged);
    ASSERT_EQ(tokens.size(), 1u);
    EXPECT_EQ(tokens[0].size(), 1023u);
    EXPECT_EQ(logged, fatal({max_token}));
}

TEST_F(Tokenizer, AtMost254TokensAreStored) {
    std::string command;
    strings words;
    for (int i = 0; i < 254; i++) {
        words.push_back("w" + std::to_string(i));
        command += words.back() + " ";
    }
    std::vector<log_record> logged;
    EXPECT_EQ(split(command, &logged), words);
    EXPECT_TRUE(logged.empty());

    // The 255th word is never stored: one attempt, at the end.
    EXPECT_EQ(split(command + "extra", &logged), words);
    EXPECT_EQ(logged, fatal({max_argv}));
}

TEST_F(Tokenizer, WordsBeyondTheLimitRunTogetherAndEveryAttemptIsReported) {
    std::string command;
    std::string run_together;
    for (int i = 0; i < 300; i++) {
        command += (i > 0 ? " " : "") + ("w" + std::to_string(i));
        if (i >= 254)
            run_together += "w" + std::to_string(i);
    }
    log_capture log;
    std::unique_ptr<parsed_argv> args = str2argv(conn, command.c_str());
    ASSERT_NE(args, nullptr);
    ASSERT_EQ(args->argc, 254);
    EXPECT_EQ(args->argv.front(), "w0");
    EXPECT_EQ(args->argv.back(), "w253");
    EXPECT_EQ(args->token, run_together);
    // 45 blanks after the 254th word, and once at the end.
    EXPECT_EQ(log.count(TOVRIN_LOG_FATAL, max_argv), 46);
    EXPECT_EQ(log.records().size(), 46u);
}

TEST_F(Tokenizer, VariableNameHoldsAtMost99Characters) {
    const std::string name(99, 'n');
    ASSERT_EQ(tovrin_conn_add_var(conn, name, "found"), 0);
    std::vector<log_record> logged;
    EXPECT_EQ(split("%" + name + "%", &logged), (strings{"found"}));
    EXPECT_TRUE(logged.empty());

    // Expanded under its first 99 characters, after one message.
    EXPECT_EQ(split("%" + name + "x%", &logged), (strings{"found"}));
    EXPECT_EQ(logged, fatal({var_name_limit}));

    EXPECT_EQ(split("a%" + name + "xyz%b", &logged), (strings{"afoundb"}));
    EXPECT_EQ(logged, fatal({var_name_limit, var_name_limit, var_name_limit}));
}

TEST_F(Tokenizer, StrategyPrefixesAreHandedToTheExpansion) {
    tovrin_conn *parent = inst.conns.push_back(
        tovrin_conn_new(&inst, "uplink", TOVRIN_CONN, 60, 30, 30, 30, 1, -1, 0));
    tovrin_conn_add_parent(conn, "uplink");
    ASSERT_EQ(tovrin_conn_add_var(parent, "v", "up"), 0);
    std::vector<log_record> logged;
    EXPECT_EQ(split("%v% %all:v% %parents_all:v% %local:v%", &logged),
              (strings{"1 2", "1 2", "up", "1 2"}));
    EXPECT_TRUE(logged.empty());
}

TEST_F(Tokenizer, TokensCanBeTakenByTheCaller) {
    std::unique_ptr<parsed_argv> args = str2argv(conn, "/bin/echo one two\n");
    ASSERT_NE(args, nullptr);
    ASSERT_EQ(args->argc, 3);
    std::vector<std::string> taken = std::move(args->argv);
    args.reset();
    EXPECT_EQ(taken, (strings{"/bin/echo", "one", "two"}));
}

TEST(ArgvRecord, StartsEmptyAndFinishesEmptyTokens) {
    std::unique_ptr<parsed_argv> args = argv_init();
    ASSERT_NE(args, nullptr);
    EXPECT_EQ(args->argc, 0);
    EXPECT_TRUE(args->argv.empty());
    EXPECT_TRUE(args->token.empty());
    EXPECT_GE(args->token.capacity(), TOVRIN_TOKEN_MAX);

    argv_token_finish(args.get());
    argv_token_addstr(args.get(), "ab");
    argv_token_addch(args.get(), 'c');
    argv_token_finish(args.get());
    EXPECT_EQ(args->argc, 2);
    EXPECT_EQ(args->argv, (strings{"", "abc"}));
    EXPECT_TRUE(args->token.empty());
}

}  // namespace
