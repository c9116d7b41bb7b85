#pragma once

#include <optional>
#include <string_view>

namespace zel::http {

struct HeaderLine {
    std::string_view name;
    std::string_view value;
};

constexpr std::string_view trimmed(std::string_view text) {
    constexpr std::string_view whitespace = " \t\r\n\v\f";
    const auto begin = text.find_first_not_of(whitespace);
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(whitespace) - begin + 1);
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

}  // namespace zel::http
