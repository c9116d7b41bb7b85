#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "zel_http/download.h"

namespace zel::http {

/// What tells one version of a resource from another: a strong ETag, or else a Last-Modified.
struct Validator {
    enum class Kind { None, ETag, LastModified };
    Kind kind = Kind::None;
    std::string value;

    bool operator==(const Validator& other) const {
        return kind == other.kind && value == other.value;
    }
};

/// The validator by which a response may be resumed; none where it gives no strong one.
Validator validatorOf(const HeaderMap& headers);

struct ContentRange {
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    std::optional<std::uint64_t> total;
};

/// Reads "bytes 5-9/10" or "bytes 5-9/*".
std::optional<ContentRange> parseContentRange(std::string_view text);

/// Reads a decimal number that is nothing else.
std::optional<std::uint64_t> parseNumber(std::string_view text);

/// What is there of a body: `offset` bytes of a version.
struct Resumable {
    std::uint64_t offset = 0;
    Validator validator;
    std::optional<std::uint64_t> total;
};

/// What to do with a response.
enum class Verdict {
    Begin,       ///< its body is the whole
    Continue,    ///< its body is the rest
    Changed,     ///< it is not the rest of what is there
    OtherStatus  ///< it has no such body
};

Verdict judge(const Resumable& have, const DownloadHead& head);

/// The bytes of the whole body; nothing where the response does not tell.
std::optional<std::uint64_t> totalOf(const DownloadHead& head);

}  // namespace zel::http
