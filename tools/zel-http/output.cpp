#include "output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace tool {
namespace {

namespace fs = std::filesystem;

constexpr int pipe_size = 1024 * 1024;  // what the system allows by default

int check(int result) {
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

bool isReplaced(const std::string& path) {
    struct stat old {};
    return path != "-" && (stat(path.c_str(), &old) != 0 || S_ISREG(old.st_mode));
}

Output::Output(const std::string& path, bool continues) {
    if (path == "-") {
        // A pipe takes more at a time then. Anything else, or a system that refuses, is as good.
        static_cast<void>(fcntl(STDOUT_FILENO, F_SETPIPE_SZ, pipe_size));
        sink_ = zel::http::DescriptorSink{STDOUT_FILENO};
        return;
    }
    if (!tool::isReplaced(path)) {
        descriptor_ = check(open(path.c_str(), O_WRONLY | O_CLOEXEC));
        sink_ = zel::http::DescriptorSink{descriptor_};
        return;
    }
    // Replacing it takes no such permission, but its owner does not expect that.
    if (fs::exists(path)) check(access(path.c_str(), W_OK));
    zel::http::FileSink file;
    file.path = behindLinks(path).string();
    file.resumes = continues;
    sink_ = file;
}

Output::~Output() {
    if (descriptor_ >= 0) close(descriptor_);
}

}  // namespace tool
