// The configuration parser with its fix-ups, then a state dump of what
// loaded.

#include "fuzz_inst.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_inst f(std::string(reinterpret_cast<const char *>(data), size));
    if (f.loaded)
        tovrin_state_dump(SIGUSR1, EV_SIGNAL, &f.inst);
    return 0;
}
