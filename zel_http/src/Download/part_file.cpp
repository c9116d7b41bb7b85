// The part and its state on the disk. The worker thread.

#include "Download/part_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <sstream>
#include <system_error>
#include <vector>

#include "Download/fault.h"

namespace zel::http {
namespace {

constexpr const char* format = "zel-http-part 1";
constexpr const char* ending = "end";

std::string render(const std::string& url, const Resumable& version) {
    std::ostringstream text;
    text.imbue(std::locale::classic());
    const bool by_tag = version.validator.kind == Validator::Kind::ETag;
    text << format << "\nurl " << url << '\n'
         << (by_tag ? "etag " : "last-modified ") << version.validator.value << '\n';
    if (version.total) text << "total " << *version.total << '\n';
    text << ending << '\n';
    return text.str();
}

/// Nothing for a text that is not whole.
std::optional<Resumable> parse(std::istream& text, const std::string& url) {
    Resumable version;
    std::string line;
    if (!std::getline(text, line) || line != format) return std::nullopt;
    if (!std::getline(text, line) || line != "url " + url) return std::nullopt;
    while (std::getline(text, line)) {
        const auto blank = line.find(' ');
        const std::string name = line.substr(0, blank);
        const std::string value = blank == std::string::npos ? "" : line.substr(blank + 1);
        if (name == ending) return version;
        if (name == "etag") version.validator = {Validator::Kind::ETag, value};
        if (name == "last-modified") version.validator = {Validator::Kind::LastModified, value};
        if (name == "total") version.total = parseNumber(value);
    }
    return std::nullopt;
}

/// The text of a small file; empty for anything else that may stand there, such as a FIFO.
std::string contentOf(const std::string& path) {
    constexpr std::size_t largest = std::size_t{64} * 1024;
    const int descriptor = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) return {};
    struct stat file {};
    std::string text(largest, '\0');
    const bool regular = fstat(descriptor, &file) == 0 && S_ISREG(file.st_mode);
    const ssize_t got = regular ? read(descriptor, text.data(), text.size()) : 0;
    close(descriptor);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    return text;
}

void writeAll(int descriptor, const char* data, std::size_t size) {
    while (size != 0) {
        const ssize_t written = write(descriptor, data, size);
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) throw std::system_error(errno, std::generic_category());
        data += written;
        size -= static_cast<std::size_t>(written);
    }
}

std::string directoryOf(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

}  // namespace

PartFile::PartFile(const std::string& path, const std::string& url)
    : path_(path),
      part_(path + ".part"),
      state_(part_ + ".state"),
      directory_(directoryOf(path)),
      url_(url) {
    if (path.empty() || path.find('\0') != std::string::npos) {
        throw Fault(DownloadFailure::Sink, "the path is empty or has a NUL");
    }
    constexpr int most_tries = 100;  // so many downloads do not end between two calls
    for (int tries = 1; !openAndLock(); ++tries) {
        if (tries == most_tries) {
            throw Fault(DownloadFailure::Busy, "other downloads write " + part_);
        }
    }
}

PartFile::~PartFile() {
    if (descriptor_ < 0) return;
    if (!resumable_) (void)unlink(part_.c_str());
    close(descriptor_);
}

/// False when another download has renamed or removed the part between the opening and the lock.
/// By then it may be somebody's whole file, which must not be touched.
bool PartFile::openAndLock() {
    constexpr mode_t usual = 0666;  // less the umask
    constexpr mode_t own = 0600;    // until it has the permissions of the file that it replaces
    const mode_t mode = access(path_.c_str(), F_OK) == 0 ? own : usual;
    descriptor_ = open(part_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, mode);
    if (descriptor_ < 0) fail("open");
    if (flock(descriptor_, LOCK_EX | LOCK_NB) != 0) {
        const bool held = errno == EWOULDBLOCK;
        const int error = errno;
        close(descriptor_);
        descriptor_ = -1;
        if (held) throw Fault(DownloadFailure::Busy, "another download writes " + part_);
        errno = error;
        fail("lock");
    }
    struct stat locked {};
    struct stat named {};
    if (fstat(descriptor_, &locked) == 0 && stat(part_.c_str(), &named) == 0 &&
        locked.st_ino == named.st_ino && locked.st_dev == named.st_dev) {
        if (S_ISREG(locked.st_mode)) return true;
        close(descriptor_);
        descriptor_ = -1;
        throw Fault(DownloadFailure::Sink, part_ + " is not a file");
    }
    close(descriptor_);
    descriptor_ = -1;
    return false;
}

Resumable PartFile::load() {
    std::istringstream text(contentOf(state_));
    auto version = parse(text, url_);
    struct stat part {};
    if (fstat(descriptor_, &part) != 0) fail("read");
    auto size = static_cast<std::uint64_t>(part.st_size);
    // The last byte of a whole part is fetched again: a server refuses a range of no bytes.
    if (version && version->total == size && size != 0) --size;
    const bool resumes = version && size != 0 && size <= version->total.value_or(size);
    if (!resumes) {
        drop();
        return {};
    }
    if (ftruncate(descriptor_, static_cast<off_t>(size)) != 0) fail("truncate");
    if (lseek(descriptor_, 0, SEEK_END) < 0) fail("seek");
    version->offset = size;
    resumable_ = true;
    return *version;
}

void PartFile::read(std::uint64_t size, const std::function<void(const char*, std::size_t)>& take) {
    std::vector<char> block(std::size_t{256} * 1024);
    std::uint64_t at = 0;
    while (at < size) {
        const auto wanted =
            static_cast<std::size_t>(std::min<std::uint64_t>(block.size(), size - at));
        const ssize_t got = pread(descriptor_, block.data(), wanted, static_cast<off_t>(at));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) fail("read");
        take(block.data(), static_cast<std::size_t>(got));
        at += static_cast<std::uint64_t>(got);
    }
}

void PartFile::drop() {
    resumable_ = false;
    // After a power cut, too, the state is gone before the bytes are, and both before new ones.
    if (unlink(state_.c_str()) == 0) {
        syncDirectory();
    } else if (errno != ENOENT) {
        fail("remove the state of");
    }
    struct stat part {};
    if (fstat(descriptor_, &part) != 0) fail("read");
    if (part.st_size == 0) return;
    if (ftruncate(descriptor_, 0) != 0 || lseek(descriptor_, 0, SEEK_SET) < 0 ||
        fsync(descriptor_) != 0) {
        fail("truncate");
    }
}

void PartFile::mark(const Resumable& version) {
    if (version.validator.kind == Validator::Kind::None) return;  // then it cannot be resumed
    constexpr mode_t own = 0600;                                  // the URL may hold what is secret
    const int state = open(state_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, own);
    if (state < 0) fail("write the state of");
    const std::string text = render(url_, version);
    try {
        writeAll(state, text.data(), text.size());
    } catch (const std::system_error& error) {
        close(state);
        errno = error.code().value();
        fail("write the state of");
    }
    close(state);
    resumable_ = true;
}

void PartFile::append(const char* data, std::size_t size) {
    try {
        writeAll(descriptor_, data, size);
    } catch (const std::system_error& error) {
        errno = error.code().value();
        fail("write");
    }
}

void PartFile::publish() {
    takeOver();
    if (fsync(descriptor_) != 0) fail("sync");
    if (rename(part_.c_str(), path_.c_str()) != 0) fail("rename");
    resumable_ = true;  // nothing is left to delete
    // A state without a part vouches for nothing.
    (void)unlink(state_.c_str());
    syncDirectory();
}

/// Permissions and owner of the file that is replaced. The owner first, which clears some
/// permissions; only root may give files away.
void PartFile::takeOver() {
    constexpr mode_t permissions = 0777;
    struct stat former {};
    if (lstat(path_.c_str(), &former) != 0 || !S_ISREG(former.st_mode)) return;
    if (fchown(descriptor_, former.st_uid, former.st_gid) != 0 && errno != EPERM) fail("own");
    if (fchmod(descriptor_, former.st_mode & permissions) != 0) fail("change the mode of");
}

void PartFile::remove() {
    resumable_ = true;  // nothing is left to delete
    (void)unlink(state_.c_str());
    (void)unlink(part_.c_str());
}

void PartFile::syncDirectory() {
    const int descriptor = open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0) fail("open the directory of");
    const int synced = fsync(descriptor);
    const int error = errno;
    close(descriptor);
    errno = error;
    if (synced != 0 && error != EINVAL) fail("sync the directory of");  // not all file systems can
}

void PartFile::fail(const char* action) const {
    const std::string reason = std::generic_category().message(errno);
    throw Fault(DownloadFailure::Sink,
                std::string("cannot ") + action + ' ' + part_ + ": " + reason);
}

}  // namespace zel::http
