#pragma once

#include <string>
#include <string_view>

namespace tool {

/// A descriptor that is closed in the end.
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

/// Where a body goes.
///
/// A plain file appears, or is replaced, only in `finish`; until then the body is in a part beside
/// it, under a name that nobody else writes to. A file that is replaced keeps its mode and owner,
/// and every link to it. Standard output, "-", and what is no plain file, such as a device, are
/// written as the body comes.
///
/// Throws `std::system_error` when a call fails.
class OutputFile {
public:
    explicit OutputFile(const std::string& path);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    /// Removes the part.
    ~OutputFile();

    void write(std::string_view bytes);
    /// Nothing can be written any more.
    void finish();

private:
    void openPart(unsigned mode);
    void overwriteTarget() const;

    Descriptor descriptor_;
    /// Empty when there is no part.
    std::string part_;
    std::string target_;
    /// A new file in place of the target would not be the same to others.
    bool overwrites_ = false;
};

}  // namespace tool
