#pragma once

/// @file
/// Percent encoding.

#include <string>
#include <type_traits>

#include "zel_http/export.h"

/// Percent-encodes every byte but ASCII letters, digits and "-_.!~*'()".
ZEL_HTTP_API std::string encodeURIComponent(const std::string& text);

/// As above, but leaves ";,/?:@&=+$#" as they are, too. An existing escape is encoded again: `%20`
/// becomes `%2520`.
ZEL_HTTP_API std::string encodeURI(const std::string& text);

namespace zel::http {

/// Builds a query string, pair by pair; keeps their order and duplicates.
class ZEL_HTTP_API QueryEncoder {
public:
    /// @{
    /// Appends "name=value", both through `encodeURIComponent`.
    void addParameter(const std::string& name, const std::string& value);
    void addParameter(const std::string& name, int value);
    /// @}
    /// Deleted: other arithmetic types would be converted to `int` and could lose their value. Pass
    /// them as text.
    template <typename Number, typename = std::enable_if_t<std::is_arithmetic_v<Number>>>
    void addParameter(const std::string& name, Number value) = delete;

    /// The pairs so far, without a leading "?".
    std::string getQueryString() const;

private:
    std::string query;
};

}  // namespace zel::http
