#pragma once

#include <atomic>
#include <string>

namespace test {

/// What became of every request. Any thread.
struct Ledger {
    std::atomic<long> started{0};
    std::atomic<long> delivered{0};
    std::atomic<long> cancelled{0};
    /// In flight when the engine was destroyed, and never heard of again.
    std::atomic<long> ended_with_engine{0};
    // What must not be.
    std::atomic<long> delivered_twice{0};
    std::atomic<long> delivered_after_cancel{0};
    std::atomic<long> other_than_expected{0};

    long unaccounted() const { return started - delivered - cancelled - ended_with_engine; }
    bool balanced() const {
        return unaccounted() == 0 && delivered_twice + delivered_after_cancel == 0 &&
               other_than_expected == 0;
    }
    std::string text() const;
};

}  // namespace test
