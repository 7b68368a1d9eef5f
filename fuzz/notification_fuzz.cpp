// The split of a notification body into its fields.

#include "fuzz_inst.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    tovrin_notification n =
        tovrin_notification_parse(std::string_view(reinterpret_cast<const char *>(data), size));
    if (n.key.size() + n.value.size() > size)
        __builtin_trap();
    return 0;
}
