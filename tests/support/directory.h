#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace test {

inline std::string contentOf(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// A temporary directory for one test.
class Directory {
public:
    explicit Directory(const std::filesystem::path& parent = std::filesystem::temp_directory_path())
        : path_(parent / "zel-http-XXXXXX") {
        if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no temporary directory");
    }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;
    ~Directory() { std::filesystem::remove_all(path_); }

    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

}  // namespace test
