#pragma once

/// @file
/// Assertions that hold in every build type.

#include "oru/export.h"

namespace oru {

/// Prints expression, file, line and function, as the C library's `assert` does, and ends the
/// process with SIGABRT. Call it on any thread.
[[noreturn]] ORU_EXPORT void assertion_failed(const char* expression, const char* file,
                                              unsigned line, const char* function) noexcept;

}  // namespace oru

/// Ends the process if `expression` is false, in every build type.
#define ORU_ASSERT(expression)           \
    ((expression) ? static_cast<void>(0) \
                  : oru::assertion_failed(#expression, __FILE__, __LINE__, __PRETTY_FUNCTION__))
