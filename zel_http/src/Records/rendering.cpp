// How a configuration appears in a log: what was asked of a transfer, without its secrets.

#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "Records/names.h"
#include "zel_http/records.h"

namespace zel::http {
namespace {

std::string flags(const RequestConfig& config) {
    struct Flag {
        bool on;
        std::string_view name;
    };
    const Flag all[] = {
        {config.reset_state, "reset-state"},
        {config.tls_verify, "tls-verify"},
        {config.tls_partial_chain, "tls-partial-chain"},
        {config.enable_cookies, "enable-cookies"},
        {config.read_cookies, "read-cookies"},
        {config.write_cookies, "write-cookies"},
    };
    std::string names;
    for (const Flag& flag : all) {
        if (!flag.on) continue;
        if (!names.empty()) names += ", ";
        names += flag.name;
    }
    return names;
}

std::string line(std::string_view label, std::string_view text) {
    return std::string(label).append(text) + '\n';
}

std::string optionalLine(std::string_view label, const std::optional<std::string>& text) {
    if (!text) return {};
    return line(label, text->empty() ? std::string_view("(empty)") : *text);
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const RequestConfig& config) {
    std::string block = "HTTP: Outgoing => ";
    block.append(nameOf(config.method)).append(line(" ", config.url));
    block += line("AuthMethod : ", nameOf(config.auth_method));
    block += line("Flags      : ", flags(config));
    block += optionalLine("CA file    : ", config.ca_file);
    block += optionalLine("CA dir     : ", config.ca_dir);
    block += optionalLine("Own cert   : ", config.own_cert);
    block += optionalLine("Own pkey   : ", config.own_pkey);
    if (config.verifier) block += line("Verifier   : ", "On");
    block += optionalLine("    w/data : ", config.verifier_data);
    block += line("BODY       : ", std::to_string(config.body.size()) + " bytes");
    block += line("--", "");
    // Unformatted output: the stream's width and fill neither apply nor change.
    return stream.write(block.data(), static_cast<std::streamsize>(block.size()));
}

}  // namespace zel::http
