// The control-command parser over a small configuration.

#include "fuzz_inst.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fuzz_inst f(fuzz_world);
    tovrin_handle_command(&f.inst, std::string_view(reinterpret_cast<const char *>(data), size));
    tovrin_dispatch_messages(-1, 0, &f.inst);
    // Nobody reads the store end: the status frames would pile up.
    f.inst.store_out_queue.clear();
    return 0;
}
