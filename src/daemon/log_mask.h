#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

// Conn mask words: which optional messages of one conn are written.
constexpr uint64_t TOVRIN_LOG_UPTRANSITIONS = 0x2;
constexpr uint64_t TOVRIN_LOG_OTHERTRANSITIONS = 0x4;
constexpr uint64_t TOVRIN_LOG_UPTESTSFAIL = 0x8;
constexpr uint64_t TOVRIN_LOG_UPTESTSSUCCEED = 0x10;
constexpr uint64_t TOVRIN_LOG_DOWNTESTSFAIL = 0x20;
constexpr uint64_t TOVRIN_LOG_DOWNTESTSSUCCEED = 0x40;
constexpr uint64_t TOVRIN_LOG_FAILOVER = 0x80;
constexpr uint64_t TOVRIN_LOG_FAILFORWARD = 0x100;
constexpr uint64_t TOVRIN_LOG_COMMANDDEBUG = 0x200;
constexpr uint64_t TOVRIN_LOG_EXTERNALCOMMANDS = 0x400;
constexpr uint64_t TOVRIN_LOG_DEBUG_WORD = 0x800;
constexpr uint64_t TOVRIN_LOG_STARTFAIL = 0x1000;
constexpr uint64_t TOVRIN_LOG_STOPFAIL = 0x2000;
constexpr uint64_t TOVRIN_CONN_LOG_DEFAULT = 0x35ca;
constexpr uint64_t TOVRIN_CONN_LOG_ALL = 0x3ffe;

// Instance mask words: the daemon's own optional messages.
constexpr uint64_t TOVRIN_INST_LOG_DEBUGGENERAL = 0x2;
constexpr uint64_t TOVRIN_INST_LOG_DEBUGSTORD = 0x4;
constexpr uint64_t TOVRIN_INST_LOG_DEBUGMESSAGES = 0x8;
constexpr uint64_t TOVRIN_INST_LOG_EXTERNALCOMMANDS = 0x10;
constexpr uint64_t TOVRIN_INST_LOG_DEFAULT = 0x10;
constexpr uint64_t TOVRIN_INST_LOG_ALL = 0x1e;

struct tovrin_log_mask_word {
    uint64_t value;
    const char *word;
};

// A mask language: its words, then its aliases, each searched from the top.
struct tovrin_log_mask_vocabulary {
    const tovrin_log_mask_word *words;
    size_t n_words;
    const tovrin_log_mask_word *aliases;
    size_t n_aliases;
};

extern const tovrin_log_mask_vocabulary tovrin_conn_log_masks;
extern const tovrin_log_mask_vocabulary tovrin_instance_log_masks;

// Applies one word ("+word" adds, "-word" removes, a bare word replaces) to
// *mask. owner names the mask in the refusal of an unknown word and may be
// null. Returns 1, or -1 with the mask unchanged.
int tovrin_log_mask_parse(const tovrin_log_mask_vocabulary &vocabulary, const char *owner,
                          uint64_t *mask, const char *word);

// Writes mask as configuration lines that read back to the same value:
// a comment with the number, then one word, or "none" and a "+word" line per
// word it contains. keyword_prefix is "" for a conn, "default" or "instance"
// for the global clause. Writes nothing for a null stream.
void tovrin_log_mask_dump(const char *line_prefix, const char *keyword_prefix, uint64_t mask,
                          const tovrin_log_mask_vocabulary &vocabulary, FILE *stream);
