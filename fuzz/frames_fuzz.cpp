// The store frame reader fed a byte stream cut at arbitrary points. The
// first byte says how long the pieces are; then each frame is a byte giving
// the length announced and the body bytes, which may fall short of it. (Huge
// announced lengths are an allocation, not a parse: the tests cover them.)

#include "fuzz_inst.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1)
        return 0;
    std::string stream;
    for (size_t at = 1; at < size;) {
        size_t announced = data[at++];
        size_t body = std::min(announced, size - at);
        stream += std::string{'\0', '\0', '\0', static_cast<char>(announced)};
        stream.append(reinterpret_cast<const char *>(data + at), body);
        at += body;
    }
    fuzz_inst f(fuzz_world);
    const size_t piece = data[0] % 32 + 1;
    for (size_t at = 0; at < stream.size(); at += piece) {
        if (write(f.store_end.get(), stream.data() + at, std::min(piece, stream.size() - at)) < 0)
            break;
        for (int i = 0; i < 3; i++)
            tovrin_store_read(f.daemon_end.get(), EV_READ, &f.inst);
        tovrin_dispatch_messages(-1, 0, &f.inst);
    }
    return 0;
}
