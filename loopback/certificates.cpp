#include "loopback/certificates.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>

namespace loopback {
namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

constexpr long a_day = 24L * 60 * 60;

struct Identity {
    Key key;
    Certificate certificate;
};

void check(bool done, const char* what) {
    if (!done) throw std::runtime_error(std::string("certificates: ") + what);
}

void addExtension(X509* certificate, int kind, const char* value) {
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, kind, value);
    check(extension != nullptr && X509_add_ext(certificate, extension, -1) == 1, value);
    X509_EXTENSION_free(extension);
}

/// Makes a certificate with one extension, signed by `issuer`, or by its own key without one. Valid
/// until tomorrow, or, if `expired`, until yesterday.
Identity make(const char* name, int kind, const char* value, const Identity* issuer,
              bool expired = false) {
    static long serial = 0;
    Identity made{Key(EVP_EC_gen("P-256"), EVP_PKEY_free), Certificate(X509_new(), X509_free)};
    check(made.key && made.certificate, "no key");
    X509* certificate = made.certificate.get();
    X509_set_version(certificate, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), ++serial);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -2 * a_day);
    X509_gmtime_adj(X509_getm_notAfter(certificate), expired ? -a_day : a_day);
    std::array<unsigned char, 64> common_name{};
    const int length =
        std::snprintf(reinterpret_cast<char*>(common_name.data()), common_name.size(), "%s", name);
    X509_NAME_add_entry_by_NID(X509_get_subject_name(certificate), NID_commonName, MBSTRING_ASC,
                               common_name.data(), length, -1, 0);
    X509_set_issuer_name(certificate,
                         X509_get_subject_name(issuer ? issuer->certificate.get() : certificate));
    X509_set_pubkey(certificate, made.key.get());
    addExtension(certificate, kind, value);
    EVP_PKEY* signer = issuer ? issuer->key.get() : made.key.get();
    check(X509_sign(certificate, signer, EVP_sha256()) != 0, "cannot sign");
    return made;
}

using File = std::unique_ptr<FILE, int (*)(FILE*)>;

File open(const std::string& path) {
    File file(std::fopen(path.c_str(), "w"), std::fclose);
    check(file != nullptr, "cannot write files");
    return file;
}

/// Writes PATH.key and PATH.pem. The certificate of `issuer` is appended: a server must send it,
/// since clients know the root only.
void write(const Identity& identity, const std::string& path, const Identity* issuer = nullptr) {
    PEM_write_PrivateKey(open(path + ".key").get(), identity.key.get(), nullptr, nullptr, 0,
                         nullptr, nullptr);
    const File chain = open(path + ".pem");
    PEM_write_X509(chain.get(), identity.certificate.get());
    if (issuer != nullptr) PEM_write_X509(chain.get(), issuer->certificate.get());
}

}  // namespace

Certificates::Certificates() {
    directory_ = (std::filesystem::temp_directory_path() / "zel-http-XXXXXX").string();
    check(mkdtemp(directory_.data()) != nullptr, "no directory");
    const auto authority = [this](const char* name, const Identity* issuer) {
        Identity made = make(name, NID_basic_constraints, "critical,CA:TRUE", issuer);
        write(made, file(name));
        return made;
    };
    const Identity root = authority("root", nullptr);
    const Identity other_root = authority("other_root", nullptr);
    const Identity intermediate = authority("intermediate", &root);
    constexpr const char* local = "DNS:localhost,IP:127.0.0.1";
    constexpr int names = NID_subject_alt_name;
    write(make("local", names, local, &intermediate), file("local"), &intermediate);
    write(make("elsewhere", names, "DNS:elsewhere.invalid", &intermediate), file("elsewhere"),
          &intermediate);
    write(make("expired", names, local, &intermediate, true), file("expired"), &intermediate);
    write(make("self_signed", names, local, nullptr), file("self_signed"));
    const Identity client = make("client", NID_ext_key_usage, "clientAuth", &root);
    write(client, file("client"));
    PEM_write_PrivateKey(open(file("client_encrypted.key")).get(), client.key.get(),
                         EVP_aes_256_cbc(), nullptr, 0, nullptr, const_cast<char*>("secret"));
}

Certificates::~Certificates() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

}  // namespace loopback
