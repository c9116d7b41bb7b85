#pragma once

#include <fmt/printf.h>

#include <string>
#include <string_view>
#include <type_traits>

namespace logging {

/// The values for a printf-style format, as your code passes them to a logger or to `eventlog_die`.
/// It points to an argument list of fmt, and to the function that formats this list, compiled where
/// the list was made. So application, library and logger may each use another version of fmt. The
/// list must outlive this object.
class Arguments {
public:
    /// No arguments.
    Arguments() = default;

    /// Takes what `arguments` or `fmt::make_printf_args` returns, or a `fmt::printf_args`.
    template <typename List,
              typename = std::enable_if_t<std::is_convertible_v<const List&, fmt::printf_args>>>
    Arguments(const List& list)  // NOLINT(google-explicit-constructor): as fmt's own lists
        : list_(&list), format_(&formatList<List>) {}

    /// Returns the text of the printf-style `format` with these values. Throws an exception derived
    /// from `std::exception` when they do not fit the format.
    std::string format(std::string_view format) const { return format_(list_, format); }

private:
    static std::string formatNothing(const void* /*list*/, std::string_view format) {
        return Arguments(fmt::printf_args()).format(format);
    }
    template <typename List>
    static std::string formatList(const void* list, std::string_view format) {
        const fmt::printf_args args(*static_cast<const List*>(list));
        return fmt::vsprintf(fmt::string_view(format.data(), format.size()), args);
    }

    const void* list_ = nullptr;
    std::string (*format_)(const void* list, std::string_view format) = &formatNothing;
};

/// Makes the argument list for a printf-style format. It refers to `values`, so do not store it:
/// write the call where the list is passed, as in `logger.error("%s", arguments(name))`.
template <typename... Values>
auto arguments(const Values&... values) {
    return fmt::make_printf_args(values...);
}

}  // namespace logging
