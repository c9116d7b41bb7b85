#pragma once

namespace test {

/// What of this process is in memory, in KiB.
struct OwnMemory {
    long resident;
    /// What no other process has: neither read from a file and unchanged, nor never touched.
    long anonymous;

    /// Of this program's own address space: what an emulator has for itself is left out.
    static OwnMemory now();
};

}  // namespace test
