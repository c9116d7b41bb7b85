// Whether a response continues what is there of a body. Plain values only.

#include "Download/resume_rule.h"

#include <curl/curl.h>

#include <charconv>

namespace zel::http {
namespace {

std::string field(const HeaderMap& headers, const char* name) {
    const auto found = headers.find(name);
    return found == headers.end() ? std::string() : found->second;
}

bool isStrongEtag(const std::string& tag) {
    return tag.size() >= 2 && tag.front() == '"' && tag.back() == '"';
}

/// Whether a Last-Modified is strong: a second change within its second would show, since the
/// response was sent later.
bool isStrongDate(const std::string& modified, const std::string& sent) {
    const auto at = [](const std::string& text) { return curl_getdate(text.c_str(), nullptr); };
    return at(modified) != -1 && at(sent) != -1 && at(sent) - at(modified) >= 1;
}

}  // namespace

Validator validatorOf(const HeaderMap& headers) {
    const std::string tag = field(headers, "ETag");
    if (isStrongEtag(tag)) return {Validator::Kind::ETag, tag};
    const std::string modified = field(headers, "Last-Modified");
    if (isStrongDate(modified, field(headers, "Date"))) {
        return {Validator::Kind::LastModified, modified};
    }
    return {};
}

std::optional<std::uint64_t> parseNumber(std::string_view text) {
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, fault] = std::from_chars(text.data(), end, number);
    if (text.empty() || fault != std::errc() || rest != end) return std::nullopt;
    return number;
}

std::optional<ContentRange> parseContentRange(std::string_view text) {
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

Verdict judge(const Resumable& have, const DownloadHead& head) {
    if (head.status == 200) return Verdict::Begin;
    const bool asked = have.offset != 0;
    if (head.status == 416 && asked) return Verdict::Changed;
    if (head.status != 206) return Verdict::OtherStatus;
    const auto range = parseContentRange(field(head.headers, "Content-Range"));
    if (!asked || !range || range->first != have.offset) return Verdict::Changed;
    if (have.total && range->total && *have.total != *range->total) return Verdict::Changed;
    // A server that does not know If-Range sends the range of whatever it has.
    const bool by_tag = have.validator.kind == Validator::Kind::ETag;
    const std::string now = field(head.headers, by_tag ? "ETag" : "Last-Modified");
    return now.empty() || now == have.validator.value ? Verdict::Continue : Verdict::Changed;
}

std::optional<std::uint64_t> totalOf(const DownloadHead& head) {
    if (head.status == 206) {
        const auto range = parseContentRange(field(head.headers, "Content-Range"));
        return range ? range->total : std::nullopt;
    }
    if (head.headers.count("Transfer-Encoding") != 0) return std::nullopt;
    return parseNumber(field(head.headers, "Content-Length"));
}

}  // namespace zel::http
