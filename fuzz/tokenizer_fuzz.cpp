// The command tokenizer with variable expansion over a fixed ancestry.

#include "fuzz_inst.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fuzz_inst f(fuzz_world);
    f.inst.conns.find("g")->group_part->active_conn_name = "kid";
    str2argv(f.inst.conns.find("kid"),
             std::string(reinterpret_cast<const char *>(data), size).c_str());
    return 0;
}
