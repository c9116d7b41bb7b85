#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace zel::http {

struct HeaderLine {
    std::string_view name;
    std::string_view value;
};

constexpr bool isWhitespace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');  // tab, LF, vertical tab, form feed, CR
}

constexpr std::string_view trimmed(std::string_view text) {
    while (!text.empty() && isWhitespace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isWhitespace(text.back())) text.remove_suffix(1);
    return text;
}

/// Whether a header line has that name, which is given in lower case and with its colon. Decides
/// by the first letter for most lines: it is asked for each line that arrives.
constexpr bool hasName(std::string_view line, std::string_view name) {
    if (line.size() < name.size()) return false;
    for (std::size_t i = 0; i < name.size(); ++i) {
        const bool upper = line[i] >= 'A' && line[i] <= 'Z';
        if ((upper ? line[i] + ('a' - 'A') : line[i]) != name[i]) return false;
    }
    return true;
}

/// Splits a header line at its first colon. Nothing for a line without a name, without a colon (a
/// status line, the empty line) or without CR LF at its end.
constexpr std::optional<HeaderLine> splitHeaderLine(std::string_view line) {
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    if (line.size() < 2 || line.substr(line.size() - 2) != "\r\n") return std::nullopt;
    const std::string_view name = trimmed(line.substr(0, colon));
    if (name.empty()) return std::nullopt;
    return HeaderLine{name, trimmed(line.substr(colon + 1))};
}

/// Whether a line is a status line. A field name may begin with "HTTP/", too; its colon comes
/// before any blank.
constexpr bool isStatusLine(std::string_view line) {
    return line.substr(0, 5) == "HTTP/" && line.find(' ') < line.find(':');
}

/// What a line of a header block is: its first, one of its fields, or the empty one at its end.
enum class LineKind { Status, Field, End };

constexpr LineKind kindOf(std::string_view line) {
    if (line == "\r\n" || line == "\n") return LineKind::End;
    return isStatusLine(line) ? LineKind::Status : LineKind::Field;
}

}  // namespace zel::http
