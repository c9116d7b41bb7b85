#include "exit_status.h"

#include <curl/curl.h>
#include <fmt/format.h>

#include <array>
#include <utility>

namespace tool {
namespace {

constexpr int status_of_error_answer = CURLE_HTTP_RETURNED_ERROR;

constexpr std::array<std::pair<int, const char*>, 21> table = {{
    {0, "answered; with -f and for a file, with a status below 400"},
    {1, "a protocol that is not here, or an error without a status of its own"},
    {2, "a bad command line"},
    {3, "a bad URL"},
    {5, "the proxy's name was not found"},
    {6, "the server's name was not found"},
    {7, "no connection"},
    {18, "the body was cut"},
    {22, "a status from 400 on, with -f or for a file"},
    {23, "the output cannot be written"},
    {26, "a file to send cannot be read"},
    {28, "a time ran out"},
    {33, "the server does not continue what is there"},
    {35, "the TLS handshake failed"},
    {47, "too many redirects"},
    {52, "the server closed without an answer"},
    {56, "the connection broke"},
    {58, "a file of --cert or --key cannot be read or used"},
    {60, "the server's certificate is not trusted"},
    {63, "the body is larger than --max-filesize"},
    {77, "a file of --cacert or --capath cannot be read"},
}};

}  // namespace

int exitStatusOf(zel::http::DownloadFailure failure) {
    using zel::http::DownloadFailure;
    switch (failure) {
        case DownloadFailure::Changed:
            return CURLE_RANGE_ERROR;
        case DownloadFailure::TooLarge:
            return CURLE_FILESIZE_EXCEEDED;
        case DownloadFailure::Stalled:
        case DownloadFailure::TimeLimit:
            return CURLE_OPERATION_TIMEDOUT;
        case DownloadFailure::Sink:
        case DownloadFailure::Busy:
            return CURLE_WRITE_ERROR;
        default:
            return 0;
    }
}

int exitStatusOf(const Outcome& outcome) {
    if (outcome.failure.empty()) return outcome.is_error_answer ? status_of_error_answer : 0;
    if (outcome.exit_status != 0) return outcome.exit_status;
    return outcome.facts.curl_code != 0 ? outcome.facts.curl_code : 1;
}

std::string exitStatusTable() {
    std::string text;
    for (const auto& [status, meaning] : table)
        text += fmt::format("  {:>3}  {}\n", status, meaning);
    return text +
           "  130  Ctrl-C; 143 after SIGTERM, 129 after SIGHUP\n"
           "Others are libcurl's codes, as libcurl-errors(3) lists them. Of several requests,\n"
           "the status is that of the last one that failed.\n";
}

}  // namespace tool
