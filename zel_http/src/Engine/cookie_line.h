#pragma once

#include <array>
#include <boost/algorithm/string/predicate.hpp>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace zel::http {

/// One entry of libcurl's cookie list: seven fields separated by tabs.
struct CookieLine {
    enum Field : std::size_t { domain, subdomains, path, secure, expiry, name, value, count };

    std::array<std::string, count> fields;

    const std::string& operator[](Field field) const { return fields[field]; }

    /// The domain field, without the mark that libcurl puts before that of an HttpOnly cookie.
    std::string host() const {
        constexpr std::string_view mark = "#HttpOnly_";
        const std::string& text = fields[domain];
        return text.rfind(mark, 0) == 0 ? text.substr(mark.size()) : text;
    }
};

/// Splits at every tab; nothing unless that gives exactly seven fields, which may be empty.
inline std::optional<CookieLine> splitCookieLine(const std::string& line) {
    CookieLine cookie;
    std::size_t begin = 0;
    for (std::size_t field = 0; field < CookieLine::count; ++field) {
        const std::size_t tab = line.find('\t', begin);
        const bool last = field + 1 == CookieLine::count;
        if (last != (tab == std::string::npos)) return std::nullopt;
        cookie.fields[field] = line.substr(begin, last ? tab : tab - begin);
        begin = tab + 1;
    }
    return cookie;
}

/// Whether a cookie of `domain` belongs to `host`: the host ends with the whole domain field,
/// without regard to case. A leading dot in the field must be there in the host too.
inline bool hostMatches(const std::string& host, const std::string& domain) {
    return boost::algorithm::iends_with(host, domain);
}

/// The line that makes libcurl drop the cookie: the same, but expired at `expiry` (Unix time).
inline std::string expiredCookieLine(const CookieLine& cookie, long long expiry) {
    std::string line;
    for (std::size_t field = 0; field < CookieLine::count; ++field) {
        if (field != 0) line += '\t';
        line += field == CookieLine::expiry ? std::to_string(expiry) : cookie.fields[field];
    }
    return line;
}

}  // namespace zel::http
