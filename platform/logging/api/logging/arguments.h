#pragma once

#include <fmt/printf.h>

#include <string>
#include <string_view>
#include <type_traits>

namespace logging {

/// A fmt argument list that crosses the library's boundary. It carries the formatting function of
/// the code that made it, so the application, the library and a logger may be compiled with
/// different versions of fmt. Refers to the list, which must outlive it.
class Arguments {
public:
    /// No arguments.
    Arguments() = default;

    /// From what `arguments` or `fmt::make_printf_args` returns, or from a `fmt::printf_args`.
    template <typename List,
              typename = std::enable_if_t<std::is_convertible_v<const List&, fmt::printf_args>>>
    Arguments(const List& list)  // NOLINT(google-explicit-constructor): as fmt's own lists
        : list_(&list), format_(&formatList<List>) {}

    /// The text that the printf-style `format` yields. Throws `std::exception` when the arguments
    /// do not fit.
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

/// The argument list of a printf-style format. It refers to `values`; use it in the expression that
/// makes it.
template <typename... Values>
auto arguments(const Values&... values) {
    return fmt::make_printf_args(values...);
}

}  // namespace logging
