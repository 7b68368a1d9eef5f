#include "daemon/log_mask.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "support/log_capture.h"

namespace {

std::string dump(const char *keyword_prefix, uint64_t mask,
                 const tovrin_log_mask_vocabulary &vocabulary) {
    char *text = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    tovrin_log_mask_dump("#", keyword_prefix, mask, vocabulary, stream);
    fclose(stream);
    std::string out(text, size);
    free(text);
    return out;
}

TEST(LogMask, WordsSignsAndAliases) {
    const struct {
        const tovrin_log_mask_vocabulary &words;
        uint64_t start;
        const char *word;
        uint64_t expected;  // the start again when the word is refused
        const char *refusal;
    } cases[] = {
        {tovrin_conn_log_masks, 0x35ca, "+commanddebug", 0x37ca, nullptr},
        {tovrin_conn_log_masks, 0x35ca, "-failover", 0x354a, nullptr},
        {tovrin_conn_log_masks, 0x35ca, "debug", 0x800, nullptr},
        {tovrin_conn_log_masks, 0x35ca, "none", 0, nullptr},
        {tovrin_conn_log_masks, 0, "all", 0x3ffe, nullptr},
        {tovrin_conn_log_masks, 0x3ffe, "+none", 0x3ffe, nullptr},
        {tovrin_conn_log_masks, 0x2, "default", 0x35ca, nullptr},
        {tovrin_conn_log_masks, 0x35ca, "-all", 0, nullptr},
        {tovrin_conn_log_masks, 0x35ca, "-Debug", 0x35ca, "Unknown log mask -Debug for wan"},
        {tovrin_instance_log_masks, 0x10, "+debugmessages", 0x18, nullptr},
        {tovrin_instance_log_masks, 0x10, "+failover", 0x10, "Unknown log mask +failover for wan"},
    };
    for (const auto &c : cases) {
        uint64_t mask = c.start;
        log_capture log;
        EXPECT_EQ(tovrin_log_mask_parse(c.words, "wan", &mask, c.word), c.refusal ? -1 : 1);
        EXPECT_EQ(mask, c.expected) << c.word;
        std::vector<log_record> said;
        if (c.refusal != nullptr)
            said.push_back({TOVRIN_LOG_FATAL, c.refusal});
        EXPECT_EQ(log.records(), said);
    }
    uint64_t mask = 7;
    log_capture log;
    EXPECT_EQ(tovrin_log_mask_parse(tovrin_conn_log_masks, nullptr, &mask, "bogus"), -1);
    EXPECT_EQ(tovrin_log_mask_parse(tovrin_conn_log_masks, "wan", &mask, nullptr), -1);
    EXPECT_EQ(log.messages(), std::vector<std::string>{"Uknown log mask bogus"});
    EXPECT_EQ(mask, 7u);
}

TEST(LogMask, DumpsReadBackAsTheSameMask) {
    const struct {
        uint64_t mask;
        const tovrin_log_mask_vocabulary &words;
        const char *prefix;
        const char *text;
    } cases[] = {
        {0x35ca, tovrin_conn_log_masks, "", "#\t#log 13770\n#\tlog default\n"},
        {0x80, tovrin_conn_log_masks, "", "#\t#log 128\n#\tlog failover\n"},
        {0x10, tovrin_instance_log_masks, "instance",
         "#\t#instancelog 16\n#\tinstancelog externalcommands\n"},
        {0x1e, tovrin_instance_log_masks, "instance", "#\t#instancelog 30\n#\tinstancelog all\n"},
        {0x8003, tovrin_conn_log_masks, "default",
         "#\t#defaultlog 32771\n#\tdefaultlog none\n#\tdefaultlog +uptransitions\n"},
        {0x37ca, tovrin_conn_log_masks, "",
         "#\t#log 14282\n#\tlog none\n#\tlog +uptransitions\n#\tlog +uptestsfail\n"
         "#\tlog +downtestssucceed\n#\tlog +failover\n#\tlog +failforward\n"
         "#\tlog +commanddebug\n#\tlog +externalcommands\n#\tlog +startfail\n#\tlog +stopfail\n"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(dump(c.prefix, c.mask, c.words), c.text) << c.mask;
    tovrin_log_mask_dump("", "", 0x35ca, tovrin_conn_log_masks, nullptr);

    // Every single word with two others, read back line by line.
    for (uint64_t bit = 0x2; bit <= 0x2000; bit <<= 1) {
        std::istringstream lines(dump("", bit | 0x4 | 0x1000, tovrin_conn_log_masks));
        uint64_t mask = 0x1234;
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind("#\t#", 0) != 0)
                tovrin_log_mask_parse(tovrin_conn_log_masks, "x", &mask,
                                      line.substr(line.find(' ') + 1).c_str());
        }
        EXPECT_EQ(mask, bit | 0x4 | 0x1000) << bit;
    }
}

}  // namespace
