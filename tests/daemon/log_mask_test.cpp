#include "daemon/log_mask.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/log_capture.h"

namespace {

std::string dump(const char *line_prefix, const char *keyword_prefix, uint64_t mask,
                 const tovrin_log_mask_vocabulary &vocabulary) {
    char *text = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    tovrin_log_mask_dump(line_prefix, keyword_prefix, mask, vocabulary, stream);
    fclose(stream);
    std::string out(text, size);
    free(text);
    return out;
}

// Feeds the "log" lines of a dump (comments skipped) back through the parser.
uint64_t read_back(const std::string &dumped, const tovrin_log_mask_vocabulary &vocabulary) {
    uint64_t mask = 0x1234;
    size_t pos = 0;
    while (pos < dumped.size()) {
        size_t end = dumped.find('\n', pos);
        std::string line = dumped.substr(pos, end - pos);
        pos = end + 1;
        size_t tab = line.find('\t');
        std::string clause = line.substr(tab + 1);
        if (clause[0] == '#')
            continue;
        std::string word = clause.substr(clause.find(' ') + 1);
        EXPECT_EQ(tovrin_log_mask_parse(vocabulary, "reader", &mask, word.c_str()), 1) << word;
    }
    return mask;
}

TEST(LogMaskParse, WordsSignsAndAliases) {
    struct parse_case {
        uint64_t start;
        const char *word;
        uint64_t expected;
    };
    const parse_case cases[] = {
        {TOVRIN_CONN_LOG_DEFAULT, "+commanddebug", 0x37ca},
        {TOVRIN_CONN_LOG_DEFAULT, "-failover", 0x354a},
        {TOVRIN_CONN_LOG_DEFAULT, "debug", 0x800},
        {TOVRIN_CONN_LOG_DEFAULT, "none", 0},
        {0, "all", 0x3ffe},
        {0x3ffe, "+none", 0x3ffe},
        {0x3ffe, "-debug", 0x37fe},
        {0x2, "default", 0x35ca},
        {0x35ca, "-all", 0},
    };
    for (const parse_case &c : cases) {
        uint64_t mask = c.start;
        EXPECT_EQ(tovrin_log_mask_parse(tovrin_conn_log_masks, "wan", &mask, c.word), 1) << c.word;
        EXPECT_EQ(mask, c.expected) << c.word;
    }
}

TEST(LogMaskParse, InstanceVocabularyIsSeparate) {
    uint64_t mask = TOVRIN_INST_LOG_DEFAULT;
    EXPECT_EQ(tovrin_log_mask_parse(tovrin_instance_log_masks, "instance logging", &mask,
                                    "+debugmessages"),
              1);
    EXPECT_EQ(mask, 0x18u);

    log_capture log;
    // A conn word means nothing to the instance.
    EXPECT_EQ(
        tovrin_log_mask_parse(tovrin_instance_log_masks, "instance logging", &mask, "+failover"),
        -1);
    EXPECT_EQ(mask, 0x18u);
    EXPECT_TRUE(log.contains(TOVRIN_LOG_FATAL, "Unknown log mask +failover for instance logging"));
}

TEST(LogMaskParse, RefusalsLeaveTheMaskAndSayWhy) {
    log_capture log;
    uint64_t mask = TOVRIN_CONN_LOG_DEFAULT;

    EXPECT_EQ(tovrin_log_mask_parse(tovrin_conn_log_masks, "wan", &mask, "Debug"), -1);
    EXPECT_EQ(tovrin_log_mask_parse(tovrin_conn_log_masks, "wan", &mask, "-Debug"), -1);
    EXPECT_EQ(tovrin_log_mask_parse(tovrin_conn_log_masks, nullptr, &mask, "bogus"), -1);
    EXPECT_EQ(tovrin_log_mask_parse(tovrin_conn_log_masks, "wan", &mask, nullptr), -1);
    EXPECT_EQ(tovrin_log_mask_parse(tovrin_conn_log_masks, "wan", nullptr, "debug"), -1);
    EXPECT_EQ(mask, TOVRIN_CONN_LOG_DEFAULT);

    const std::vector<log_record> expected = {
        {TOVRIN_LOG_FATAL, "Unknown log mask Debug for wan"},
        {TOVRIN_LOG_FATAL, "Unknown log mask -Debug for wan"},
        {TOVRIN_LOG_FATAL, "Uknown log mask bogus"},
    };
    EXPECT_EQ(log.records(), expected);
}

TEST(LogMaskDump, ExactWordsAndAliases) {
    struct dump_case {
        uint64_t mask;
        const tovrin_log_mask_vocabulary *vocabulary;
        const char *keyword_prefix;
        const char *expected;
    };
    const dump_case cases[] = {
        {0x35ca, &tovrin_conn_log_masks, "", "\t#log 13770\n\tlog default\n"},
        {0x3ffe, &tovrin_conn_log_masks, "", "\t#log 16382\n\tlog all\n"},
        {0, &tovrin_conn_log_masks, "", "\t#log 0\n\tlog none\n"},
        {0x80, &tovrin_conn_log_masks, "", "\t#log 128\n\tlog failover\n"},
        {0x100, &tovrin_conn_log_masks, "", "\t#log 256\n\tlog failforward\n"},
        // The word table is searched before the aliases.
        {0x10, &tovrin_instance_log_masks, "instance",
         "\t#instancelog 16\n\tinstancelog externalcommands\n"},
        {0x1e, &tovrin_instance_log_masks, "instance", "\t#instancelog 30\n\tinstancelog all\n"},
        {0x35ca, &tovrin_conn_log_masks, "default", "\t#defaultlog 13770\n\tdefaultlog default\n"},
    };
    for (const dump_case &c : cases)
        EXPECT_EQ(dump("", c.keyword_prefix, c.mask, *c.vocabulary), c.expected) << c.mask;
}

TEST(LogMaskDump, MixedMaskListsEveryWordInTableOrder) {
    EXPECT_EQ(dump("#", "", 0x37ca, tovrin_conn_log_masks),
              "#\t#log 14282\n"
              "#\tlog none\n"
              "#\tlog +uptransitions\n"
              "#\tlog +uptestsfail\n"
              "#\tlog +downtestssucceed\n"
              "#\tlog +failover\n"
              "#\tlog +failforward\n"
              "#\tlog +commanddebug\n"
              "#\tlog +externalcommands\n"
              "#\tlog +startfail\n"
              "#\tlog +stopfail\n");
}

TEST(LogMaskDump, BitsWithoutWordsStayInTheComment) {
    EXPECT_EQ(dump("", "", 0x1 | 0x8000 | 0x2, tovrin_conn_log_masks),
              "\t#log 32771\n\tlog none\n\tlog +uptransitions\n");
}

TEST(LogMaskDump, NullStreamWritesNothing) {
    tovrin_log_mask_dump("", "", 0x35ca, tovrin_conn_log_masks, nullptr);
}

TEST(LogMaskDump, EveryMaskMadeOfWordsReadsBack) {
    // Every combination of three words, plus a few wider masks.
    std::vector<uint64_t> masks = {0, 0x3ffe, 0x35ca, 0x37ca, 0x2 | 0x800 | 0x2000};
    for (uint64_t bit = 0x2; bit <= 0x2000; bit <<= 1)
        masks.push_back(bit | 0x4 | 0x1000);
    for (uint64_t mask : masks) {
        std::string text = dump("", "", mask, tovrin_conn_log_masks);
        EXPECT_EQ(read_back(text, tovrin_conn_log_masks), mask) << text;
    }
    for (uint64_t mask = 0; mask <= 0x1e; mask += 2) {
        std::string text = dump("", "instance", mask, tovrin_instance_log_masks);
        EXPECT_EQ(read_back(text, tovrin_instance_log_masks), mask) << text;
    }
}

}  // namespace
