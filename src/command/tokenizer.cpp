#include "command/tokenizer.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <optional>
#include <string>

#include "command/var.h"
#include "daemon/log.h"

// An expansion is cut where a token would cut it anyway.
static_assert(TOVRIN_VAR_TEXT_MAX >= TOVRIN_TOKEN_MAX);

std::unique_ptr<parsed_argv> argv_init() {
    std::unique_ptr<parsed_argv> args;
    try {
        args = std::make_unique<parsed_argv>();
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "argv_init: failed to calloc struct parsed_argv");
        return nullptr;
    }
    try {
        // Reserved once, so adding characters never allocates.
        args->token.reserve(TOVRIN_TOKEN_MAX);
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "argv_init: failed to calloc");
        return nullptr;
    }
    return args;
}

void argv_token_addch(parsed_argv *args, char ch) {
    if (args->token.size() >= TOVRIN_TOKEN_MAX) {
        tovrin_log(TOVRIN_LOG_FATAL, "argv_token_addch: reached max token length (%d)",
                   static_cast<int>(TOVRIN_TOKEN_BUFFER));
        return;
    }
    args->token.push_back(ch);
}

void argv_token_addstr(parsed_argv *args, const char *s) {
    size_t room = TOVRIN_TOKEN_MAX - std::min(args->token.size(), TOVRIN_TOKEN_MAX);
    args->token.append(s, strnlen(s, room));
}

void argv_token_finish(parsed_argv *args) {
    if (args->argc >= TOVRIN_ARGV_MAX_TOKENS) {
        tovrin_log(TOVRIN_LOG_FATAL, "argv_token_finish: reached max argv length (%d)",
                   TOVRIN_ARGV_SLOTS);
        return;
    }
    try {
        // A copy sized to the token; the reserved buffer stays for the next.
        args->argv.push_back(args->token);
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "argv_token_finish: failed to calloc");
        args->out_of_memory = true;
        return;
    }
    args->argc++;
    args->token.clear();
}

namespace {

bool is_blank(char ch) {
    return ch == '\t' || ch == '\n' || ch == ' ';
}

bool is_quote(char ch) {
    return ch == '"' || ch == '\'';
}

// What one call of str2argv has seen so far.
struct tokenizer_state {
    bool in_token = false;
    bool in_container = false;
    char container = 0;
    bool escaped = false;
    bool in_var = false;
    char var_name[TOVRIN_VAR_NAME_BUFFER] = {};
    size_t var_length = 0;
    // Quotes met inside unquoted tokens; they group nothing, but must pair.
    std::string quote_stack;
    std::vector<std::string> *unresolved = nullptr;
};

// Applies the first rule that matches command[i].
void tokenizer_step(tovrin_conn *conn, parsed_argv *args, tokenizer_state &s, const char *command,
                    size_t length, size_t i) {
    char ch = command[i];
    if (s.in_var && ch != '%') {
        if (s.var_length >= TOVRIN_VAR_NAME_MAX) {
            tovrin_log(TOVRIN_LOG_FATAL, "str2argv: var name exceeded limit (%d)",
                       static_cast<int>(TOVRIN_VAR_NAME_BUFFER));
            return;
        }
        s.var_name[s.var_length++] = ch;
        return;
    }
    if (s.in_var) {
        s.var_name[s.var_length] = '\0';
        bool found = false;
        std::optional<std::string> value = tovrin_var_expand(conn, s.var_name, &found);
        if (value.has_value())
            argv_token_addstr(args, value->c_str());
        if (!found && s.unresolved != nullptr)
            s.unresolved->emplace_back(s.var_name);
        // A reference that found nothing still counts as part of the token,
        // so a closing quote or a blank after it stores the token.
        s.var_length = 0;
        s.var_name[0] = '\0';
        s.in_var = false;
        s.escaped = false;
        return;
    }
    if (s.escaped) {
        argv_token_addch(args, ch);
        s.in_token = true;
        s.escaped = false;
        return;
    }
    if (ch == '%') {
        s.in_var = true;
        s.in_token = true;
        s.escaped = false;
        return;
    }
    if (ch == '\\') {
        if (!s.in_container || (i + 1 < length && command[i + 1] == s.container))
            s.escaped = true;
        else
            argv_token_addch(args, ch);
        return;
    }
    if (is_blank(ch)) {
        if (!s.in_token)
            return;
        if (s.in_container) {
            argv_token_addch(args, ch);
            return;
        }
        argv_token_finish(args);
        s.in_token = false;
        return;
    }
    if (is_quote(ch)) {
        if (!s.in_token) {
            s.container = ch;
            s.in_token = true;
            s.in_container = true;
        } else if (s.in_container && ch == s.container) {
            argv_token_finish(args);
            s.in_container = false;
            s.in_token = false;
        } else if (s.in_container) {
            argv_token_addch(args, ch);
        } else if (!s.quote_stack.empty() && s.quote_stack.back() == ch) {
            s.quote_stack.pop_back();
        } else {
            s.quote_stack.push_back(ch);
        }
        return;
    }
    argv_token_addch(args, ch);
    s.in_token = true;
}

}  // namespace

std::unique_ptr<parsed_argv> str2argv(tovrin_conn *conn, const char *command,
                                      std::vector<std::string> *unresolved) {
    std::unique_ptr<parsed_argv> args = argv_init();
    if (args == nullptr || command == nullptr)
        return args;

    tokenizer_state s;
    s.unresolved = unresolved;
    size_t length = strlen(command);
    try {
        for (size_t i = 0; i < length && !args->out_of_memory; i++)
            tokenizer_step(conn, args.get(), s, command, length, i);
        // A token still empty here is never stored, so a trailing reference
        // that found nothing adds no argument.
        if (!args->out_of_memory && !args->token.empty())
            argv_token_finish(args.get());
    } catch (const std::bad_alloc &) {
        tovrin_log(TOVRIN_LOG_FATAL, "str2argv: failed to allocate memory");
        args->out_of_memory = true;
    }
    if (args->out_of_memory) {
        // Part of the command is missing and running the rest could do harm,
        // so the caller gets no token at all.
        args->argv.clear();
        args->argc = 0;
        args->token.clear();
        return args;
    }

    if (s.in_container)
        tovrin_log(TOVRIN_LOG_FATAL, "str2argv - parse error, still in container");
    if (s.in_var)
        tovrin_log(TOVRIN_LOG_FATAL, "str2argv - parse error, still in var");
    if (s.escaped)
        tovrin_log(TOVRIN_LOG_FATAL, "str2argv - parse error, unused escape (\\)");
    if (!s.quote_stack.empty()) {
        tovrin_log(TOVRIN_LOG_FATAL, "str2argv - parse error - bad quotes");
        s.quote_stack.clear();
    }
    return args;
}
