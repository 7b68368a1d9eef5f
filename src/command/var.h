#pragma once

#include <cstddef>
#include <forward_list>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

enum tovrin_var_type {
    TOVRIN_VAR_PLAIN = 0,  // `var`: a fixed value
    TOVRIN_VAR_STORD = 1,  // `stord_var`: follows a key in the store
};

// A store subscription and the latest value the store sent for its key.
struct tovrin_var_sub {
    std::string stord_prefix;  // the key followed, matched whole
    std::optional<std::string> current_val;
};

// The instance's subscriptions, newest first. Nodes never move, so a
// variable keeps its position for an unlink in constant time.
using tovrin_var_sub_list = std::list<tovrin_var_sub>;

// One variable of a conn.
struct tovrin_var {
    int type = TOVRIN_VAR_PLAIN;
    std::string name;
    std::string value;                  // plain variables
    tovrin_var_sub_list::iterator sub;  // store variables: its subscription
};

// Newest first; a conn has five of them, most of them empty.
using tovrin_var_list = std::forward_list<std::unique_ptr<tovrin_var>>;

struct tovrin_conn;

// Which of a conn's five variable lists holds name: the byte sum of the name
// (bytes unsigned, 32-bit unsigned sum) modulo 5.
int tovrin_var_index(std::string_view name);

// Empties the conn's five variable lists (without cancelling subscriptions).
void tovrin_conn_vars_init(tovrin_conn *conn);

// Adds a variable with a fixed value at the head of its list, so it hides
// earlier ones of the same name. 0, or -1 after logging.
int tovrin_conn_add_var(tovrin_conn *conn, std::string_view name, std::string_view value);

// Adds a variable that follows the store key: the subscription request is
// queued and the subscription goes to the head of the instance's
// store_vars. 0, or -1 after logging (nothing is left behind).
int tovrin_conn_add_stord_var(tovrin_conn *conn, std::string_view name, std::string_view key);

// Frees every variable of the conn; a store variable's key is unsubscribed
// and its subscription unlinked from store_vars first.
void tovrin_conn_vars_free(tovrin_conn *conn);

// Looks for name among the conn's own variables. On a match sets found and
// returns text with the value appended (after one blank when text is
// present); a store variable with no value yet matches but adds nothing.
// Without a match returns text and leaves found alone.
std::optional<std::string> tovrin_var_lookup_local(tovrin_conn *conn, const std::string &name,
                                                   std::optional<std::string> text, bool &found);

// The most conns one search visits. Every path through the ancestry is
// walked, and a ladder of diamonds doubles its paths with each rung, so
// some ancestries of a few dozen conns would hold the loop for years; a
// search stops at this bound, which a search takes well over a second to
// reach (bench/var_search measures it), so a walk of a second or less is
// always walked whole.
constexpr long TOVRIN_VAR_SEARCH_MAX_VISITS = 1L << 25;

// The most characters of an expansion a search keeps: what a command's token
// can hold.
constexpr size_t TOVRIN_VAR_TEXT_MAX = 1023;

// The lookup strategies. Each walks every path through the ancestry, so a
// conn reached by two paths is searched twice; a conn met again on its own
// path (parents that form a cycle) is skipped, reported once per search at
// priority 0 as "variable search for NAME found a cycle through conn CONN",
// and a search that has visited TOVRIN_VAR_SEARCH_MAX_VISITS conns stops
// where it is, reported once. Names that do not resolve are logged and
// skipped. May throw std::bad_alloc.
//
// The conn, then its active member and so on down a chain of groups.
std::optional<std::string> tovrin_var_search_local(tovrin_conn *conn, const std::string &name,
                                                   std::optional<std::string> text, bool &found);
// Every parent's ancestry with tovrin_var_search_all; not the conn itself.
std::optional<std::string> tovrin_var_search_parents_all(tovrin_conn *conn, const std::string &name,
                                                         std::optional<std::string> text,
                                                         bool &found);
// The conn alone when it holds name; otherwise its active member and all its
// parents, collecting every value.
std::optional<std::string> tovrin_var_search_all(tovrin_conn *conn, const std::string &name,
                                                 std::optional<std::string> text, bool &found);
// The conn, its active member, then each parent depth first; the first
// holder wins.
std::optional<std::string> tovrin_var_search_first(tovrin_conn *conn, const std::string &name,
                                                   std::optional<std::string> text, bool &found);

// Expands a reference ("name" or "strategy:name") on behalf of conn; nullopt
// when nothing was found. *found, when given, tells a variable that holds no
// value yet from none at all. May throw std::bad_alloc.
std::optional<std::string> tovrin_var_expand(tovrin_conn *conn, const char *reference,
                                             bool *found = nullptr);
