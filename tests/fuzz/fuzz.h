#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string_view>

namespace test {

/// Ends the fuzzer with its input when something that must hold does not.
inline void require(bool holds, const char* what) {
    if (holds) return;
    std::cerr << "must hold: " << what << '\n';
    std::abort();
}

inline std::string_view text(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

}  // namespace test

// NOLINTNEXTLINE(readability-identifier-naming)
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
