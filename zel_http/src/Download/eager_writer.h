#pragma once

#include <cstddef>

namespace zel::http {

/// Writes to a descriptor what needs no wait: into a file in memory, or as much as a pipe or socket
/// has room for.
class EagerWriter {
public:
    explicit EagerWriter(int descriptor);

    /// False for what may have to wait for a device, as files on a disk do.
    bool able() const { return able_; }
    /// Returns how many bytes were written, from the front; 0 after an error, too.
    std::size_t write(const char* data, std::size_t size) noexcept;

private:
    const int descriptor_;
    bool in_memory_ = false;
    bool able_ = false;
};

}  // namespace zel::http
