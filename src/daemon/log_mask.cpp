#include "daemon/log_mask.h"

#include <cstring>
#include <iterator>

#include "daemon/log.h"

namespace {

const tovrin_log_mask_word conn_words[] = {
    {0, "none"},
    {TOVRIN_LOG_UPTRANSITIONS, "uptransitions"},
    {TOVRIN_LOG_OTHERTRANSITIONS, "othertransitions"},
    {TOVRIN_LOG_UPTESTSFAIL, "uptestsfail"},
    {TOVRIN_LOG_UPTESTSSUCCEED, "uptestssucceed"},
    {TOVRIN_LOG_DOWNTESTSFAIL, "downtestsfail"},
    {TOVRIN_LOG_DOWNTESTSSUCCEED, "downtestssucceed"},
    {TOVRIN_LOG_FAILOVER, "failover"},
    {TOVRIN_LOG_FAILFORWARD, "failforward"},
    {TOVRIN_LOG_COMMANDDEBUG, "commanddebug"},
    {TOVRIN_LOG_DEBUG_WORD, "debug"},
    {TOVRIN_LOG_EXTERNALCOMMANDS, "externalcommands"},
    {TOVRIN_LOG_STARTFAIL, "startfail"},
    {TOVRIN_LOG_STOPFAIL, "stopfail"},
};

const tovrin_log_mask_word conn_aliases[] = {
    {TOVRIN_CONN_LOG_DEFAULT, "default"},
    {TOVRIN_CONN_LOG_ALL, "all"},
};

const tovrin_log_mask_word instance_words[] = {
    {0, "none"},
    {TOVRIN_INST_LOG_DEBUGGENERAL, "debuggeneral"},
    {TOVRIN_INST_LOG_DEBUGSTORD, "debugstord"},
    {TOVRIN_INST_LOG_DEBUGMESSAGES, "debugmessages"},
    {TOVRIN_INST_LOG_EXTERNALCOMMANDS, "externalcommands"},
};

const tovrin_log_mask_word instance_aliases[] = {
    {TOVRIN_INST_LOG_DEFAULT, "default"},
    {TOVRIN_INST_LOG_ALL, "all"},
};

const tovrin_log_mask_word *row_named(const tovrin_log_mask_word *rows, size_t n,
                                      const char *word) {
    for (size_t i = 0; i < n; i++) {
        if (strcmp(rows[i].word, word) == 0)
            return &rows[i];
    }
    return nullptr;
}

const tovrin_log_mask_word *row_valued(const tovrin_log_mask_word *rows, size_t n, uint64_t value) {
    for (size_t i = 0; i < n; i++) {
        if (rows[i].value == value)
            return &rows[i];
    }
    return nullptr;
}

}  // namespace

const tovrin_log_mask_vocabulary tovrin_conn_log_masks = {conn_words, std::size(conn_words),
                                                          conn_aliases, std::size(conn_aliases)};

const tovrin_log_mask_vocabulary tovrin_instance_log_masks = {
    instance_words, std::size(instance_words), instance_aliases, std::size(instance_aliases)};

int tovrin_log_mask_parse(const tovrin_log_mask_vocabulary &vocabulary, const char *owner,
                          uint64_t *mask, const char *word) {
    if (word == nullptr || mask == nullptr)
        return -1;

    enum { replace, add, take_away } how = replace;
    const char *name = word;
    if (*name == '+') {
        how = add;
        name++;
    } else if (*name == '-') {
        how = take_away;
        name++;
    }

    const tovrin_log_mask_word *row = row_named(vocabulary.words, vocabulary.n_words, name);
    if (row == nullptr)
        row = row_named(vocabulary.aliases, vocabulary.n_aliases, name);
    if (row == nullptr) {
        if (owner != nullptr)
            tovrin_log(TOVRIN_LOG_FATAL, "Unknown log mask %s for %s", word, owner);
        else
            tovrin_log(TOVRIN_LOG_FATAL, "Uknown log mask %s", word);
        return -1;
    }

    switch (how) {
        case add:
            *mask |= row->value;
            break;
        case take_away:
            *mask &= ~row->value;
            break;
        case replace:
            *mask = row->value;
            break;
    }
    return 1;
}

void tovrin_log_mask_dump(const char *line_prefix, const char *keyword_prefix, uint64_t mask,
                          const tovrin_log_mask_vocabulary &vocabulary, FILE *stream) {
    if (stream == nullptr)
        return;
    fprintf(stream, "%s\t#%slog %llu\n", line_prefix, keyword_prefix,
            static_cast<unsigned long long>(mask));

    const tovrin_log_mask_word *exact = row_valued(vocabulary.words, vocabulary.n_words, mask);
    if (exact == nullptr)
        exact = row_valued(vocabulary.aliases, vocabulary.n_aliases, mask);
    if (exact != nullptr) {
        fprintf(stream, "%s\t%slog %s\n", line_prefix, keyword_prefix, exact->word);
        return;
    }

    // Bits that no word covers survive only in the comment line above.
    fprintf(stream, "%s\t%slog none\n", line_prefix, keyword_prefix);
    for (size_t i = 0; i < vocabulary.n_words; i++) {
        if ((vocabulary.words[i].value & mask) != 0)
            fprintf(stream, "%s\t%slog +%s\n", line_prefix, keyword_prefix,
                    vocabulary.words[i].word);
    }
}
