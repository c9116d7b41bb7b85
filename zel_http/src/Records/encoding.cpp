#include "zel_http/encoding.h"

#include <string_view>

namespace {

constexpr std::string_view unreserved =
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
constexpr std::string_view component_extra = "-_.!~*'()";
constexpr std::string_view uri_extra = ";,/?:@&=+$-_.!~*'()#";
constexpr std::string_view hex_digits = "0123456789ABCDEF";

std::string percent_encode(const std::string& text, std::string_view extra) {
    const std::string allowed = std::string(unreserved).append(extra);
    std::string result;
    result.reserve(text.size());
    for (const char c : text) {
        if (allowed.find(c) != std::string::npos) {
            result += c;
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        result += '%';
        result += hex_digits[byte >> 4U];
        result += hex_digits[byte & 0xfU];
    }
    return result;
}

}  // namespace

std::string encodeURIComponent(const std::string& text) {
    return percent_encode(text, component_extra);
}

std::string encodeURI(const std::string& text) { return percent_encode(text, uri_extra); }

namespace zel::http {

void QueryEncoder::addParameter(const std::string& name, const std::string& value) {
    if (!query.empty()) query += '&';
    query += encodeURIComponent(name) + '=' + encodeURIComponent(value);
}

void QueryEncoder::addParameter(const std::string& name, int value) {
    addParameter(name, std::to_string(value));
}

std::string QueryEncoder::getQueryString() const { return query; }

}  // namespace zel::http
