#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "Download/resume_rule.h"

namespace zel::http {

/// The part of a file and the state that tells of which version its bytes are. Holds the part's
/// lock for its life. Whatever instant a process is killed at, the state never vouches for bytes of
/// another version: it is gone before the part is emptied, and written before the first byte.
/// Operations throw `Fault`.
class PartFile {
public:
    /// Opens or creates the part, and locks it. Keeps what is there.
    PartFile(const std::string& path, const std::string& url);
    /// Deletes a part that no later download could resume.
    ~PartFile();
    PartFile(const PartFile&) = delete;
    PartFile& operator=(const PartFile&) = delete;

    int descriptor() const { return descriptor_; }
    /// What the part has of this URL's body, if the state vouches for it.
    Resumable load();
    /// Passes the first `size` bytes to `take`, block by block.
    void read(std::uint64_t size, const std::function<void(const char*, std::size_t)>& take);
    /// Empties the part.
    void drop();
    /// Writes the state of an empty part.
    void mark(const Resumable& version);
    void append(const char* data, std::size_t size);
    /// Gives the whole part its file's name.
    void publish();
    /// Deletes the part and its state.
    void remove();

private:
    bool openAndLock();
    void takeOver();
    void syncDirectory();
    [[noreturn]] void fail(const char* action) const;

    const std::string path_;
    const std::string part_;
    const std::string state_;
    const std::string directory_;
    const std::string url_;
    int descriptor_ = -1;
    bool resumable_ = false;
};

}  // namespace zel::http
