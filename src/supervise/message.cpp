#include "supervise/message.h"

#include <iterator>

namespace {

const char *const message_type_names[] = {
    "start", "stop", "check start", "check stop",    "restart",
    "fail",  "test", "member down", "member tested", "member failed",
};

}  // namespace

const char *tovrin_msg_type_name(int type) {
    if (type < 0 || type >= static_cast<int>(std::size(message_type_names)))
        return "(unknown)";
    return message_type_names[type];
}
