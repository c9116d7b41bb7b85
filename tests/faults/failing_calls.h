#pragma once

#include <atomic>
#include <cstddef>

/// Calls of the C and C++ libraries that this program makes fail for its whole process.
namespace test {

/// Allocations of as many bytes and more throw `std::bad_alloc`.
extern std::atomic<std::size_t> failing_allocation;

/// The `nth` allocation that the calling thread makes from now on fails, libraries' own included;
/// it tells standard error who asked for it. For one thread at a time; not where a sanitizer
/// allocates.
void failAllocation(long nth);

/// Whether it did; calls it off if not.
bool allocationFailed();

/// How many of the next wake-ups (`eventfd_write`) fail.
extern std::atomic<int> failing_wakeups;

/// While it lives, names that end in ".silent.test" are looked up by the C library at a name server
/// on loopback that takes the question and never answers.
class SilentNameServer {
public:
    SilentNameServer();
    SilentNameServer(const SilentNameServer&) = delete;
    SilentNameServer& operator=(const SilentNameServer&) = delete;
    ~SilentNameServer();

    /// Whether a question has come since the last call.
    bool asked() const;

private:
    int socket_;
};

}  // namespace test
