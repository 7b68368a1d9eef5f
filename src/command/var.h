#pragma once

#include <list>
#include <memory>
#include <optional>
#include <string>

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

using tovrin_var_list = std::list<std::unique_ptr<tovrin_var>>;
