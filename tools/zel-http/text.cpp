#include "text.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

namespace tool {
namespace {

/// Where the part of a URL that begins at `at` ends, "user:password@host:port". A password in which
/// a "/" is not encoded ends it too early, and looks like a port that is no number.
std::size_t endOfAuthority(const std::string& text, std::size_t at) {
    const auto end = std::min(text.find_first_of("/?# \r\n", at), text.size());
    const auto colon = text.find(':', at);
    const bool is_whole = text[at] == '[' || colon >= end || text.find('@', at) < end ||
                          text.find_first_not_of("0123456789", colon + 1) >= end;
    return is_whole ? end : text.find_first_of(" \r\n", at);
}

}  // namespace

std::string sizeText(std::uint64_t bytes) {
    constexpr double kibi = 1024;
    const auto size = static_cast<double>(bytes);
    if (size < kibi) return fmt::format("{} bytes", bytes);
    if (size < kibi * kibi) return fmt::format("{:.1f} KiB", size / kibi);
    return fmt::format("{:.1f} MiB", size / (kibi * kibi));
}

std::string withoutCredentials(std::string text) {
    for (auto at = text.find("//"); at != std::string::npos; at = text.find("//", at)) {
        const bool in_path = at != 0 && text[at - 1] != ':' && text[at - 1] != ' ';
        at = std::min(text.find_first_not_of('/', at), text.size());
        if (in_path) continue;
        const auto mark = text.substr(0, endOfAuthority(text, at)).rfind('@');
        if (mark != std::string::npos && mark >= at) text.replace(at, mark - at, "***");
    }
    return text;
}

std::optional<char> controlOf(char letter) {
    switch (letter) {
        case 'n':
            return '\n';
        case 'r':
            return '\r';
        case 't':
            return '\t';
        default:
            return std::nullopt;
    }
}

void checkOneLine(const std::string& text) {
    if (text.find_first_of("\r\n") != std::string::npos) {
        throw std::runtime_error("a header is one line");
    }
}

bool isBinary(std::string_view bytes) {
    constexpr std::string_view in_texts = "\a\b\t\n\v\f\r\x1b";
    return std::any_of(bytes.begin(), bytes.end(), [&](unsigned char byte) {
        const bool control = byte < ' ' || byte == '\x7f';
        return control && in_texts.find(static_cast<char>(byte)) == std::string_view::npos;
    });
}

std::string errorText(const zel::http::ErrorData& error) {
    const std::string name = nameOf(error.failure);
    return error.message.empty() ? name : name + " (" + error.message + ')';
}

std::string comparison(const std::string& name, std::size_t name_width, const std::string& expected,
                       const std::string& actual) {
    const bool same = actual == expected;
    return fmt::format("  {:<7} {:<{}} {}{}\n", same ? "ok" : "DIFFERS", name, name_width,
                       same ? "expected and came: " : "expected: " + expected + ", came: ", actual);
}

}  // namespace tool
