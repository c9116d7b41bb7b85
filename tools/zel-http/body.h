#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace tool {

/// A value of -d or one of its relatives.
struct DataPiece {
    enum Kind { Text, Raw, Binary, UrlEncoded };
    Kind kind;
    std::string value;
};

/// A file to send that cannot be read.
struct UnreadableFile : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Throws `UnreadableFile` when there is no such file, or it may not be read, or is a directory.
void checkReadable(const std::string& path);

/// The whole of a file, or with "-" of standard input. Throws as `checkReadable` does.
std::string contentOf(const std::string& path);

/// For a URL.
std::string escaped(const std::string& text);

/// The body that the pieces make, joined by '&'. Throws as `contentOf` does.
std::string joined(const std::vector<DataPiece>& pieces);

/// "key=value" with the value encoded, as --data-urlencode takes it: "value", "=value",
/// "key=value", "@file" or "key@file". Throws as `contentOf` does.
std::string urlEncoded(const std::string& text);

}  // namespace tool
