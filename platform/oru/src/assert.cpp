#include "oru/assert.h"

#undef NDEBUG
#include <cassert>

namespace oru {

void assertion_failed(const char* expression, const char* file, unsigned line,
                      const char* function) noexcept {
    // The C library's own reporter: declared by <cassert> only while NDEBUG is off.
    __assert_fail(expression, file, line, function);
}

}  // namespace oru
