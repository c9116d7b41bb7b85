#include <openssl/ssl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "certificate/certificate.h"
#include "eventlog/eventlog.h"
#include "logging/logger.h"
#include "uri/uri.h"

void eventlog(const char* text) noexcept { std::fputs(text, stderr); }

void eventlog_die(const char* format, logging::Arguments args) noexcept {
    std::fprintf(stderr, "%s\n", args.format(format).c_str());
    std::abort();
}

namespace logging {
namespace {

void write(const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); }

/// Errors and fixed-level lines to stderr; no debug lines at all.
class StderrLogger final : public Logger {
public:
    void critical(std::string_view format, Arguments args) override { write(args.format(format)); }
    void error(std::string_view format, Arguments args) override { write(args.format(format)); }
    void debug(int, std::string_view, Arguments) override {}
    bool isDebugEnabled(int) const override { return false; }
    detail::StreamProxy infoStream() override { return detail::StreamProxy(write); }
    detail::StreamProxy debugStream(int) override { return {}; }
};

}  // namespace

Logger& getLogger(const std::string& /*name*/) {
    static StderrLogger logger;
    return logger;
}

}  // namespace logging

namespace certificate {

std::string ca_path(const std::string& name) {
    constexpr char bundle[] = "/etc/ssl/certs/ca-certificates.crt";
    return name == "default" && access(bundle, R_OK) == 0 ? bundle : "";
}

bool ca_pem_exists(const std::string& name) { return !ca_path(name).empty(); }

int sslctx_data_index() {
    static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
}

}  // namespace certificate

namespace uri {

uri::uri(const std::string& text) {
    const auto scheme = text.find("://");
    const auto begin = scheme == std::string::npos ? 0 : scheme + 3;
    const std::string authority = text.substr(begin, text.find_first_of("/?#", begin) - begin);
    const auto user = authority.rfind('@');
    const std::string host = user == std::string::npos ? authority : authority.substr(user + 1);
    const bool ipv6 = !host.empty() && host.front() == '[';
    host_ = host.substr(0, ipv6 ? host.find(']') + 1 : host.find(':'));
}

}  // namespace uri
