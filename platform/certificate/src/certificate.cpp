#include "certificate/certificate.h"

#include <openssl/ssl.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

namespace certificate {
namespace {

constexpr std::array<const char*, 3> system_bundles = {
    "/etc/ssl/certs/ca-certificates.crt",  // Debian, Alpine, Buildroot, Yocto
    "/etc/pki/tls/certs/ca-bundle.crt",    // Fedora
    "/etc/ssl/ca-bundle.pem",              // SUSE
};

bool readable(const char* path) { return access(path, R_OK) == 0; }

}  // namespace

std::string ca_path(const std::string& name) {
    if (name != "default") return {};
    // As OpenSSL's tools do: when the variable is set, no other bundle is used.
    if (const char* chosen = std::getenv("SSL_CERT_FILE"); chosen != nullptr && *chosen != '\0') {
        return readable(chosen) ? chosen : std::string();
    }
    for (const char* bundle : system_bundles) {
        if (readable(bundle)) return bundle;
    }
    return {};
}

bool ca_pem_exists(const std::string& name) { return !ca_path(name).empty(); }

int sslctx_data_index() {
    static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
}

}  // namespace certificate
