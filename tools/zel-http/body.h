#pragma once

#include <string>
#include <vector>

namespace tool {

/// A value of -d or one of its relatives.
struct DataPiece {
    enum Kind { Text, Raw, Binary, UrlEncoded };
    Kind kind;
    std::string value;
};

/// The whole of a file, or with "-" of standard input. Throws `std::runtime_error` when it cannot
/// be read.
std::string contentOf(const std::string& path);

/// The body that the pieces make, joined by '&'. Throws as `contentOf` does.
std::string joined(const std::vector<DataPiece>& pieces);

/// "key=value" with the value encoded, as --data-urlencode takes it: "value", "=value",
/// "key=value", "@file" or "key@file". Throws as `contentOf` does.
std::string urlEncoded(const std::string& text);

}  // namespace tool
