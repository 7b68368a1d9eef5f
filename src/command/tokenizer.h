#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

struct tovrin_conn;

// Fixed limits of one tokenized command.
constexpr int TOVRIN_ARGV_SLOTS = 255;  // the slot after the last token is always null
constexpr int TOVRIN_ARGV_MAX_TOKENS = TOVRIN_ARGV_SLOTS - 1;
constexpr size_t TOVRIN_TOKEN_BUFFER = 1024;  // one byte is kept for the terminator
constexpr size_t TOVRIN_TOKEN_MAX = TOVRIN_TOKEN_BUFFER - 1;
constexpr size_t TOVRIN_VAR_NAME_BUFFER = 100;
constexpr size_t TOVRIN_VAR_NAME_MAX = TOVRIN_VAR_NAME_BUFFER - 1;

// The tokens of one command string. Releasing the record releases whatever
// it still holds; a caller keeping the tokens moves argv out first.
struct parsed_argv {
    int argc = 0;                   // tokens stored in argv
    std::vector<std::string> argv;  // at most TOVRIN_ARGV_MAX_TOKENS
    std::string token;              // being built, at most TOVRIN_TOKEN_MAX characters
    bool out_of_memory = false;     // a token could not be stored for lack of memory
};

// An empty record whose token can take TOVRIN_TOKEN_MAX characters without
// allocating; null after logging when memory is short.
std::unique_ptr<parsed_argv> argv_init();

// Appends one character to the token; beyond the limit it is dropped with a
// message.
void argv_token_addch(parsed_argv *args, char ch);

// Appends the NUL-terminated s to the token, cut silently at the limit.
void argv_token_addstr(parsed_argv *args, const char *s);

// Stores the token (even an empty one) as the next argument and starts a new
// one. With every slot taken the token is kept and grows on.
void argv_token_finish(parsed_argv *args);

// Splits command into arguments on blanks, with "..." and '...' quoting,
// backslash escapes and %reference% expansion on behalf of conn. Syntax
// errors are logged and the tokens completed so far are kept. When memory
// runs out the result holds no token (argc 0). Null only when not even the
// record could be allocated; callers treat that like argc 0. References that
// no variable answered are appended to *unresolved when it is given.
std::unique_ptr<parsed_argv> str2argv(tovrin_conn *conn, const char *command,
                                      std::vector<std::string> *unresolved = nullptr);
