#pragma once

// The test binaries' allocation function fails once, on request, so tests
// can prove that code survives any single allocation failure. Tests run on
// one thread.

// Plans the failure of the allocation that comes after `succeeding` more.
void allocation_fail_after(long succeeding);

// Cancels a planned failure; true when it had happened.
bool allocation_failure_happened();

// While one lives, allocations are neither counted nor failed: the log
// capture records what it is given this way, so that the failure always
// lands in the code under test.
class allocation_pause {
  public:
    allocation_pause();
    ~allocation_pause();
    allocation_pause(const allocation_pause &) = delete;
    allocation_pause &operator=(const allocation_pause &) = delete;
};
