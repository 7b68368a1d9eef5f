#include "daemon/log_mask.h"
#include "support/test_inst.h"

// The sandbox's file has one line per message with its priority, up to
// info: debug never at the daemon's threshold. errno is the same afterwards
// whether a message went out or not, or had nowhere to go.
TEST(Log, WritesUpToInfoAndKeepsErrno) {
    temp_dir dir;
    errno = EINTR;
    tovrin_log(TOVRIN_LOG_FATAL, "nowhere to go");
    EXPECT_EQ(errno, EINTR);
    {
        tovrin_log_setup setup = tovrin_log_setup::open_file(dir.file("tovrin.log").c_str());
        errno = ENOENT;
        tovrin_log(TOVRIN_LOG_FATAL, "could not open %s socket", "stord");
        EXPECT_EQ(errno, ENOENT);
        errno = EAGAIN;
        tovrin_log(TOVRIN_LOG_DEBUG, "not at this threshold");
        EXPECT_EQ(errno, EAGAIN);
        tovrin_log(TOVRIN_LOG_WARN, "warning %d", 2);
        tovrin_log(TOVRIN_LOG_INFO, "initialising");
    }
    EXPECT_EQ(dir.read_file("tovrin.log"),
              "[tovrin] FATAL    tovrin - could not open stord socket\n"
              "[tovrin] WARN     tovrin - warning 2\n"
              "[tovrin] INFO     tovrin - initialising\n");
}

// A mask word without an owner to name is refused with the short message
// (the simulator's --log words); a missing word or mask is refused unsaid.
TEST(Log, MaskWordsRefusedWithoutAnOwner) {
    uint64_t mask = 7;
    log_capture log;
    EXPECT_EQ(tovrin_log_mask_parse(tovrin_conn_log_masks, nullptr, &mask, "bogus"), -1);
    EXPECT_EQ(tovrin_log_mask_parse(tovrin_conn_log_masks, "wan", &mask, nullptr), -1);
    EXPECT_EQ(tovrin_log_mask_parse(tovrin_conn_log_masks, "wan", nullptr, "all"), -1);
    EXPECT_EQ(mask, 7u);
    EXPECT_EQ(log.messages(), strings{"Uknown log mask bogus"});
}
