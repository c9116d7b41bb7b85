#include "Records/names.h"

#include <array>
#include <cstddef>
#include <ostream>

namespace zel::http {
namespace {

constexpr std::array<std::string_view, 6> method_names = {"POST",   "PUT",   "GET",
                                                          "DELETE", "PATCH", "GET_SYNC"};
constexpr std::array<std::string_view, 2> auth_names = {"BASIC", "ANY"};
constexpr std::array<std::string_view, 7> failure_names = {"<Invalid URL>",
                                                           "<DNS Lookup failure>",
                                                           "<Protocol failure>",
                                                           "<Operation timed out>",
                                                           "<Authentication failure>",
                                                           "<Failed to establish connection>",
                                                           "<Error code in HTTP Response>"};
constexpr std::array<std::string_view, 10> download_failure_names = {
    "<Status>",     "<Refused>",  "<Changed>",      "<Too large>", "<Stalled>",
    "<Time limit>", "<Checksum>", "<Cannot write>", "<Busy>",      "<No engine>"};
constexpr std::size_t client_failure_count = 6;  // not the last: callers get it as a response

template <typename Enumeration, std::size_t N>
std::string_view lookUp(const std::array<std::string_view, N>& names, Enumeration value,
                        std::size_t count = N) {
    // A negative value becomes a large index.
    const auto index = static_cast<std::size_t>(value);
    return index < count ? names[index] : std::string_view();
}

template <typename Enumeration>
std::ostream& write(std::ostream& stream, Enumeration value) {
    const std::string_view name = nameOf(value);
    return name.empty() ? stream : stream << name;
}

}  // namespace

std::string_view nameOf(Method method) { return lookUp(method_names, method); }
std::string_view nameOf(AuthMethod method) { return lookUp(auth_names, method); }
std::string_view nameOf(Failure failure) { return lookUp(failure_names, failure); }
std::string_view nameOf(ClientFailure failure) {
    return lookUp(failure_names, failure, client_failure_count);
}
std::string_view nameOf(DownloadFailure failure) {
    // The first values are those of `ClientFailure`.
    const auto index = static_cast<std::size_t>(failure);
    if (index < client_failure_count) return failure_names[index];
    return lookUp(download_failure_names, index - client_failure_count);
}

std::ostream& operator<<(std::ostream& stream, const Method& method) {
    return write(stream, method);
}
std::ostream& operator<<(std::ostream& stream, const AuthMethod& method) {
    return write(stream, method);
}
std::ostream& operator<<(std::ostream& stream, const Failure& failure) {
    return write(stream, failure);
}
std::ostream& operator<<(std::ostream& stream, const ClientFailure& failure) {
    return write(stream, failure);
}
std::ostream& operator<<(std::ostream& stream, const DownloadFailure& failure) {
    return write(stream, failure);
}

}  // namespace zel::http
