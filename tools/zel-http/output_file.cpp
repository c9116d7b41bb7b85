#include "output_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

namespace tool {
namespace {

namespace fs = std::filesystem;

constexpr unsigned mode_of_new_files = 0666;  // umask clears some
constexpr unsigned permissions = 0777;

template <typename Result>
Result check(Result result) {
    if (result < 0) throw std::system_error(errno, std::generic_category());
    return result;
}

/// Follows symbolic links to their end, which need not exist.
fs::path behindLinks(fs::path path) {
    if (fs::exists(path)) return fs::canonical(path);  // throws for links in a circle
    while (fs::is_symlink(path)) path = path.parent_path() / fs::read_symlink(path);
    return path;
}

}  // namespace

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    std::swap(value_, other.value_);
    return *this;
}

Descriptor::~Descriptor() {
    if (value_ >= 0) close(value_);
}

int Descriptor::release() { return std::exchange(value_, -1); }

OutputFile::OutputFile(const std::string& path) {
    // Duplicated: opening /dev/stdout would write a file that it is redirected to from its start.
    if (path == "-") {
        descriptor_ = Descriptor(check(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)));
        return;
    }
    struct stat old {};
    const bool exists = stat(path.c_str(), &old) == 0;
    if (exists && !S_ISREG(old.st_mode)) {
        descriptor_ = Descriptor(check(open(path.c_str(), O_WRONLY | O_CLOEXEC)));
        return;
    }
    if (exists) check(access(path.c_str(), W_OK));
    target_ = behindLinks(path).string();
    openPart(exists ? S_IRUSR | S_IWUSR : mode_of_new_files);
    overwrites_ =
        exists && (old.st_nlink > 1 || fchown(descriptor_.get(), old.st_uid, old.st_gid) != 0 ||
                   fchmod(descriptor_.get(), old.st_mode & permissions) != 0);
}

OutputFile::~OutputFile() {
    if (!part_.empty()) unlink(part_.c_str());
}

void OutputFile::openPart(unsigned mode) {
    constexpr std::size_t longest_name = 200;  // leaves room for the suffix
    const fs::path target(target_);
    const std::string name = target.filename().string().substr(0, longest_name);
    for (int i = 1; descriptor_.get() < 0; ++i) {
        const fs::path part =
            target.parent_path() / fmt::format("{}.{}-{}.part", name, getpid(), i);
        descriptor_ = Descriptor(open(part.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode));
        if (descriptor_.get() >= 0) {
            part_ = part.string();
        } else if (errno != EEXIST) {
            check(-1);
        }
    }
}

void OutputFile::write(std::string_view bytes) {
    while (!bytes.empty()) {
        const auto written = check(::write(descriptor_.get(), bytes.data(), bytes.size()));
        bytes.remove_prefix(static_cast<std::size_t>(written));
        // A signal has cut the write short. Fail, so that the program ends now instead of blocking
        // until a slow reader has read on.
        pollfd ready{descriptor_.get(), POLLOUT, 0};
        if (!bytes.empty() && poll(&ready, 1, 0) == 0) {
            throw std::system_error(EINTR, std::generic_category());
        }
    }
}

void OutputFile::finish() {
    if (overwrites_) {
        overwriteTarget();
        return;
    }
    if (!part_.empty()) check(fsync(descriptor_.get()));
    check(close(descriptor_.release()));
    if (part_.empty()) return;
    check(rename(part_.c_str(), target_.c_str()));
    part_.clear();
}

/// Copies the part file over the target. The lock keeps two downloads to one target apart. Space is
/// reserved first, so that a full disk does not leave a target that is half old, half new.
void OutputFile::overwriteTarget() const {
    constexpr off_t most_at_once = 1 << 30;
    const Descriptor target(check(open(target_.c_str(), O_WRONLY | O_CLOEXEC)));
    check(flock(target.get(), LOCK_EX));
    const off_t size = check(lseek(descriptor_.get(), 0, SEEK_END));
    if (fallocate(target.get(), FALLOC_FL_KEEP_SIZE, 0, size) != 0 && errno == ENOSPC) check(-1);
    for (off_t done = 0; done < size;) {
        check(sendfile(target.get(), descriptor_.get(), &done,
                       static_cast<std::size_t>(std::min(size - done, most_at_once))));
    }
    check(ftruncate(target.get(), size));
    check(fsync(target.get()));
}

}  // namespace tool
