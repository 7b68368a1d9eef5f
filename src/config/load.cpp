#include "config/load.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "config/clauses.h"
#include "config/fixup.h"
#include "config/pending.h"
#include "daemon/log.h"
#include "platform/unique_file.h"
#include "supervise/conn.h"
#include "supervise/inst.h"

namespace {

// A line is read in pieces of at most this many bytes; each further piece
// of a longer line is parsed as a line of its own.
constexpr size_t line_buffer_size = 1024;

const char token_separators[] = " \t\n";

// What the lines read so far have opened.
struct config_parser {
    enum context { none, global, definition, skipping };

    tovrin_inst *inst;
    context where = none;
    bool definition_seen = false;
    tovrin_conn *current = nullptr;
};

struct header_kind {
    const char *keyword;
    int type;
    const char *missing_name;
};

const header_kind header_kinds[] = {
    {"conn", TOVRIN_CONN, "Connection defined without a name"},
    {"anygroup", TOVRIN_ANYGROUP, "Anygroup defined without a name"},
    {"orderedgroup", TOVRIN_ORDEREDGROUP, "Orderedgroup defined without a name"},
};

// A conn or group header: creates the record, or skips a taken name.
int header_definition(config_parser *p, const header_kind &kind, const char *name) {
    if (name == nullptr) {
        tovrin_log(TOVRIN_LOG_FATAL, "%s", kind.missing_name);
        return -1;
    }
    if (p->inst->new_conns.find(name) != nullptr) {
        tovrin_log(TOVRIN_LOG_ERROR, "Duplicate name used in tovrin config: %s", name);
        p->where = config_parser::skipping;
        p->current = nullptr;
        return 0;
    }

    tovrin_conn *conn = nullptr;
    if (kind.type == TOVRIN_CONN) {
        std::unique_ptr<tovrin_conn> made =
            tovrin_conn_new(p->inst, name, TOVRIN_CONN, 60, 30, 30, 30, 1, -1, 0);
        try {
            if (made != nullptr)
                conn = p->inst->new_conns.push_back(std::move(made));
        } catch (const std::bad_alloc &) {
        }
        if (conn == nullptr)
            tovrin_log(TOVRIN_LOG_FATAL, "Could not add conn");
    } else {
        conn = tovrin_group_add(p->inst, name, kind.type);
    }
    // Without a record the clauses that follow would apply to nothing.
    if (conn == nullptr)
        return -1;
    conn->config_line = p->inst->config_line;
    p->current = conn;
    p->definition_seen = true;
    p->where = config_parser::definition;
    return 0;
}

int line_header(config_parser *p, const config_clause &line) {
    const char *keyword = line.tokens[0];
    if (strcmp(keyword, "global") == 0) {
        if (p->definition_seen) {
            tovrin_log(TOVRIN_LOG_FATAL, "Global definitions must be first in the file");
            return -1;
        }
        p->where = config_parser::global;
        return 0;
    }
    for (const header_kind &kind : header_kinds) {
        if (strcmp(keyword, kind.keyword) == 0)
            return header_definition(p, kind, line.arg(1));
    }
    tovrin_log(TOVRIN_LOG_FATAL, "Unknown clause: %s", keyword);
    return -1;
}

int line_clause(config_parser *p, const config_clause &clause) {
    switch (p->where) {
        case config_parser::none:
            tovrin_log(TOVRIN_LOG_FATAL,
                       "New connection definitions must start without whitespace");
            return -1;
        case config_parser::skipping:
            return 0;
        case config_parser::global:
            return config_global_clause(p->inst, clause);
        case config_parser::definition:
            return config_definition_clause(p->current, clause);
    }
    return -1;
}

// Classifies and applies one line (or piece of a line). 0, or -1 when the
// file is wrong.
int line_parse(config_parser *p, char *line, char *line_copy) {
    strcpy(line_copy, line);

    config_clause clause;
    clause.line_copy = line_copy;
    char *saved = nullptr;
    for (char *token = strtok_r(line, token_separators, &saved);
         token != nullptr && clause.n_tokens < config_clause::max_tokens;
         token = strtok_r(nullptr, token_separators, &saved))
        clause.tokens[clause.n_tokens++] = token;

    if (clause.n_tokens == 0 || clause.tokens[0][0] == '#')
        return 0;
    if (line_copy[0] != ' ' && line_copy[0] != '\t')
        return line_header(p, clause);
    return line_clause(p, clause);
}

// Reads every line of file into the pending configuration. Past the line
// buffers, whatever cannot be allocated is reported where it happens.
int file_parse(tovrin_inst *inst, FILE *file) {
    std::vector<char> line, line_copy;
    try {
        line.resize(line_buffer_size);
        line_copy.resize(line_buffer_size);
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "Failed to allocate memory to parse config");
        return -1;
    }
    config_parser parser{inst};
    int result = 0;
    bool line_ended = true;
    while (result == 0 && fgets(line.data(), static_cast<int>(line.size()), file) != nullptr) {
        // The further pieces of a long line keep its number.
        if (line_ended)
            inst->config_line++;
        line_ended = strchr(line.data(), '\n') != nullptr;
        result = line_parse(&parser, line.data(), line_copy.data());
    }
    inst->config_line = 0;
    return result;
}

}  // namespace

int tovrin_config_load(tovrin_inst *inst, tovrin_config_handover handover) {
    inst->reloading_config = false;
    tovrin_config_discard_new(inst);

    const char *path = inst->paths->config_file.c_str();
    struct stat st;
    if (stat(path, &st) != 0) {
        tovrin_log(TOVRIN_LOG_FATAL, "Config path %s doesn't exist...", path);
        return -1;
    }
    unique_file file(fopen(path, "re"));
    if (file == nullptr) {
        tovrin_log(TOVRIN_LOG_FATAL, "Failed to open %s for reading", path);
        return -1;
    }

    int result = -1;
    inst->new_globals = tovrin_globals_new();
    // Without settings there is nothing to apply the clauses to.
    if (inst->new_globals != nullptr)
        result = file_parse(inst, file.get());
    inst->config_line = 0;
    if (result == 0) {
        try {
            if (inst->config_parsed)
                inst->config_parsed(inst);
            tovrin_config_fixup(inst, handover);
            return 0;
        } catch (const std::bad_alloc &) {
            // The hand-over changes nothing it cannot finish; a reload it
            // had begun is abandoned like one whose file does not parse.
            // No message is given for this failure; it is reported as a
            // parse that ran out of memory.
            tovrin_log(TOVRIN_LOG_FATAL, "Failed to allocate memory to parse config");
            inst->reloading_config = false;
        }
    }
    tovrin_log(TOVRIN_LOG_FATAL, "Failed To Load Config");
    tovrin_config_discard_new(inst);
    return -1;
}
