// The command tokenizer with variable expansion over a fixed ancestry.

#include "command/tokenizer.h"
#include "fuzz_inst.h"
#include "supervise/conn.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fuzz_inst f(fuzz_world);
    static tovrin_conn *kid = f.inst->conns.find("kid");
    f.inst->conns.find("g")->active_conn_name = "kid";
    std::string command(reinterpret_cast<const char *>(data), size);
    str2argv(kid, command.c_str());
    return 0;
}
