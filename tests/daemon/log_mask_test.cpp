#include "daemon/log_mask.h"

#include "support/test_inst.h"

static std::string dump(const char *prefix, uint64_t mask,
                        const tovrin_log_mask_vocabulary &words) {
    char *text = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    tovrin_log_mask_dump("#", prefix, mask, words, stream);
    fclose(stream);
    std::unique_ptr<char, free_deleter> owned(text);
    return std::string(text, size);
}

// Words apply with their sign; refused words leave the mask and say why.
// Dumps name the mask with one word when one fits, else word by word (the
// dumps of whole configurations show the usual masks).
TEST(LogMask, ParsesAndDumpsWords) {
    const tovrin_log_mask_vocabulary &conn = tovrin_conn_log_masks,
                                     &inst = tovrin_instance_log_masks;
    const struct {
        const tovrin_log_mask_vocabulary &words;
        uint64_t start;
        const char *word;
        uint64_t expected;  // the start again when refused
        int result;
    } parses[] = {
        {conn, 0x35ca, "+commanddebug", 0x37ca, 1}, {conn, 0x35ca, "-failover", 0x354a, 1},
        {conn, 0x35ca, "debug", 0x800, 1},          {conn, 0x3ffe, "+none", 0x3ffe, 1},
        {conn, 0x2, "default", 0x35ca, 1},          {conn, 0, "all", 0x3ffe, 1},
        {conn, 0x35ca, "-Debug", 0x35ca, -1},       {inst, 0x10, "+debugmessages", 0x18, 1},
        {inst, 0x10, "+failover", 0x10, -1},        {conn, 7, nullptr, 7, -1}};
    log_capture log;
    for (const auto &p : parses) {
        uint64_t mask = p.start;
        EXPECT_EQ(tovrin_log_mask_parse(p.words, "wan", &mask, p.word), p.result);
        EXPECT_EQ(mask, p.expected) << (p.word ? p.word : "null");
    }
    uint64_t mask = 7;
    EXPECT_EQ(tovrin_log_mask_parse(conn, nullptr, &mask, "bogus"), -1);
    EXPECT_EQ(log.messages(),
              (strings{"Unknown log mask -Debug for wan", "Unknown log mask +failover for wan",
                       "Uknown log mask bogus"}));
    // Bits no word names show in the number only.
    EXPECT_EQ(dump("default", 0x8003, conn),
              "#\t#defaultlog 32771\n#\tdefaultlog none\n#\tdefaultlog +uptransitions\n");
    tovrin_log_mask_dump("", "", 0x35ca, conn, nullptr);
}
