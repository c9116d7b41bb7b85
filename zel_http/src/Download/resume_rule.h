#pragma once

#include <curl/curl.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "zel_http/download.h"

namespace zel::http {

/// What tells one version of a resource from another: a strong ETag, or else a Last-Modified.
struct Validator {
    enum class Kind { None, ETag, LastModified };
    Kind kind = Kind::None;
    std::string value;
};

/// What is there of a body: `offset` bytes of a version.
struct Resumable {
    std::uint64_t offset = 0;
    Validator validator;
    std::optional<std::uint64_t> total;
};

/// What to do with a response.
enum class Verdict {
    Begin,        ///< its body is the whole
    Continue,     ///< its body is the rest
    Changed,      ///< it is not the rest of what is there
    OtherStatus,  ///< it has no such body
};

struct ContentRange {
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    std::optional<std::uint64_t> total;
};

/// The value of a header field; empty without one.
inline std::string fieldOf(const HeaderMap& headers, const char* name) {
    const auto found = headers.find(name);
    return found == headers.end() ? std::string() : found->second;
}

/// Reads a decimal number that is nothing else.
inline std::optional<std::uint64_t> parseNumber(std::string_view text) {
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number);
    if (text.empty() || parsed.ec != std::errc() || parsed.ptr != end) return std::nullopt;
    return number;
}

/// Reads "bytes 5-9/10" or "bytes 5-9/*".
inline std::optional<ContentRange> parseContentRange(std::string_view text) {
    constexpr std::string_view unit = "bytes ";
    const auto dash = text.find('-');
    const auto slash = text.find('/');
    if (text.substr(0, unit.size()) != unit || dash == std::string_view::npos ||
        slash == std::string_view::npos || slash < dash) {
        return std::nullopt;
    }
    const auto first = parseNumber(text.substr(unit.size(), dash - unit.size()));
    const auto last = parseNumber(text.substr(dash + 1, slash - dash - 1));
    const auto total = parseNumber(text.substr(slash + 1));
    if (!first || !last || *last < *first) return std::nullopt;
    if (!total && text.substr(slash + 1) != "*") return std::nullopt;
    if (total && *last >= *total) return std::nullopt;
    return ContentRange{*first, *last, total};
}

/// The bytes of the whole body; nothing where the response does not tell.
inline std::optional<std::uint64_t> totalOf(const DownloadHead& head) {
    if (head.status == 206) {
        const auto range = parseContentRange(fieldOf(head.headers, "Content-Range"));
        return range ? range->total : std::nullopt;
    }
    // These have no body, and may declare the length of another response's.
    if (head.status == 204 || head.status == 304) return 0;
    if (head.headers.count("Transfer-Encoding") != 0) return std::nullopt;
    return parseNumber(fieldOf(head.headers, "Content-Length"));
}

inline bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }

/// The validator by which a response may be resumed; none where it gives no strong one. A
/// Last-Modified is strong when the response was sent later: a second change within its second
/// would show.
inline Validator validatorOf(const HeaderMap& headers) {
    const std::string tag = fieldOf(headers, "ETag");
    // A server refuses a request with a field that is too long.
    constexpr std::size_t longest = 1024;
    const bool strong = tag.size() >= 2 && tag.size() <= longest && tag.front() == '"' &&
                        tag.back() == '"' && std::none_of(tag.begin(), tag.end(), isControl);
    if (strong) return {Validator::Kind::ETag, tag};
    const std::string modified = fieldOf(headers, "Last-Modified");
    const auto changed = curl_getdate(modified.c_str(), nullptr);
    const auto sent = curl_getdate(fieldOf(headers, "Date").c_str(), nullptr);
    if (changed == -1 || sent - changed < 1) return {};
    return {Validator::Kind::LastModified, modified};
}

/// What a response is to somebody who has `have` and asked for the rest of it.
inline Verdict judge(const Resumable& have, const DownloadHead& head) {
    if (head.status == 200) return Verdict::Begin;
    const bool asked = have.offset != 0;
    if (head.status == 416 && asked) return Verdict::Changed;
    if (head.status != 206) return Verdict::OtherStatus;
    const auto range = parseContentRange(fieldOf(head.headers, "Content-Range"));
    if (!asked || !range || range->first != have.offset) return Verdict::Changed;
    if (have.total && range->total && *have.total != *range->total) return Verdict::Changed;
    // A server that does not know If-Range sends the range of whatever it has.
    const bool by_tag = have.validator.kind == Validator::Kind::ETag;
    const std::string now = fieldOf(head.headers, by_tag ? "ETag" : "Last-Modified");
    return now.empty() || now == have.validator.value ? Verdict::Continue : Verdict::Changed;
}

}  // namespace zel::http
