#pragma once

#include <string>
#include <string_view>

namespace tool {

/// Owns a file descriptor and closes it.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int value) : value_(value) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor(Descriptor&& other) noexcept : value_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept;
    ~Descriptor();

    int get() const { return value_; }
    int release();

private:
    int value_ = -1;
};

/// The file that a body is written to.
///
/// A regular file is created or replaced only by `finish`; until then the body is in a part file
/// beside it, under a name that no other process uses. A replaced file keeps its mode, its owner
/// and every link to it. Standard output ("-") and other kinds of file, such as devices, are
/// written directly.
///
/// Throws `std::system_error` when a call fails.
class OutputFile {
public:
    explicit OutputFile(const std::string& path);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    /// Removes the part file, unless `finish` has succeeded.
    ~OutputFile();

    void write(std::string_view bytes);
    /// Completes the file. Nothing can be written afterwards.
    void finish();

private:
    void openPart(unsigned mode);
    void overwriteTarget() const;

    Descriptor descriptor_;
    /// The path of the part file; empty when there is none.
    std::string part_;
    std::string target_;
    /// The target is overwritten instead of replaced, since a new file would lose its other links,
    /// its owner or its mode.
    bool overwrites_ = false;
};

}  // namespace tool
