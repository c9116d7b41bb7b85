#include "Download/eager_writer.h"

#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace zel::http {

EagerWriter::EagerWriter(int descriptor) : descriptor_(descriptor) {
    struct stat file {};
    struct statfs system {};
    if (fstat(descriptor, &file) != 0 || fstatfs(descriptor, &system) != 0) return;
    const bool regular = S_ISREG(file.st_mode);
    const auto type = static_cast<std::uint32_t>(system.f_type);  // signed on some targets
    in_memory_ = regular && (type == TMPFS_MAGIC || type == RAMFS_MAGIC);
    able_ = in_memory_ || S_ISFIFO(file.st_mode) || S_ISSOCK(file.st_mode);
}

std::size_t EagerWriter::write(const char* data, std::size_t size) noexcept {
    if (!able_) return 0;
    const iovec block{const_cast<char*>(data), size};
    const ssize_t written = in_memory_ ? ::write(descriptor_, data, size)
                                       : pwritev2(descriptor_, &block, 1, -1, RWF_NOWAIT);
    if (written >= 0) return static_cast<std::size_t>(written);
    if (errno == EOPNOTSUPP || errno == ENOSYS) able_ = false;  // a kernel that cannot do it
    return 0;
}

}  // namespace zel::http
