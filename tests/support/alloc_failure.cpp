#include "support/alloc_failure.h"

#include <dlfcn.h>

#include <cstdlib>
#include <new>

namespace {

// Allocations still to succeed before the planned failure; negative when
// none is planned.
long allocations_before_failure = -1;
int pauses = 0;

}  // namespace

// Only this throwing form is replaced; every request is passed on to the
// next definition (the sanitizer's or the C++ library's), so allocation and
// release pair up exactly as without it.
void *operator new(std::size_t size) {
    if (pauses == 0 && allocations_before_failure >= 0 && allocations_before_failure-- == 0)
        throw std::bad_alloc();
    using allocate_fn = void *(*)(std::size_t);
    static const allocate_fn next = reinterpret_cast<allocate_fn>(dlsym(RTLD_NEXT, "_Znwm"));
    if (next == nullptr)
        std::abort();
    return next(size);
}

void allocation_fail_after(long succeeding) {
    allocations_before_failure = succeeding;
}

bool allocation_failure_happened() {
    bool happened = allocations_before_failure < 0;
    allocations_before_failure = -1;
    return happened;
}

allocation_pause::allocation_pause() {
    pauses++;
}

allocation_pause::~allocation_pause() {
    pauses--;
}
