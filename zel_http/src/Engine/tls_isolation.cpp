#include "Engine/tls_isolation.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>

#include "Engine/easy_options.h"
#include "Engine/redirect_rule.h"
#include "Engine/tls_policy.h"

namespace zel::http {
namespace {

/// How many files, or pairs of them, are remembered; a device uses a few.
constexpr std::size_t most_remembered = 64;

/// An encrypted key has no pass phrase here, and nobody is asked for one.
int noPassPhrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*data*/) { return 0; }

bool keyFitsCertificate(const std::string& certificate, const std::string& key) {
    const auto open = [](const std::string& path) {
        return std::unique_ptr<BIO, decltype(&BIO_free)>(BIO_new_file(path.c_str(), "r"), BIO_free);
    };
    const auto certificate_file = open(certificate);
    const auto key_file = open(key);
    const std::unique_ptr<X509, decltype(&X509_free)> x509(
        PEM_read_bio_X509(certificate_file.get(), nullptr, noPassPhrase, nullptr), X509_free);
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> pkey(
        PEM_read_bio_PrivateKey(key_file.get(), nullptr, noPassPhrase, nullptr), EVP_PKEY_free);
    const bool fits = x509 && pkey && X509_check_private_key(x509.get(), pkey.get()) == 1;
    ERR_clear_error();  // or libcurl takes it for its own
    return fits;
}

/// Before 8.12 libcurl keeps sessions for the redirects of one transfer alone, and frees a name
/// twice when memory runs out meanwhile.
bool keepsSessionsWell() {
    constexpr unsigned since = 0x080c00;
    return curl_version_info(CURLVERSION_NOW)->version_num >= since;
}

}  // namespace

void TlsIsolation::apply(CURL* curl, const RequestConfig& config) {
    if (!keepsSessionsWell()) setLong<CURLOPT_SSL_SESSIONID_CACHE>(curl, 0);
    if (!isHttps(config.url)) return;
    // OpenSSL asks for a pass phrase on the terminal otherwise, and every transfer waits.
    setText<CURLOPT_KEYPASSWD>(curl, "");
    const bool partial_chain = config.tls_verify && config.tls_partial_chain;
    const bool own_certificate = hasClientCertificate(config);
    long options = 0;
    // libcurl allows partial chains by itself unless told not to.
    if (config.tls_verify && !partial_chain) options |= CURLSSLOPT_NO_PARTIALCHAIN;
    if (config.verifier) {
        // OpenSSL builds ignore this bit, so it serves as a mark that no other policy has.
        options |= CURLSSLOPT_REVOKE_BEST_EFFORT;
        setLong<CURLOPT_FRESH_CONNECT>(curl, 1);
        setLong<CURLOPT_FORBID_REUSE>(curl, 1);
        // Over HTTP/2 another transfer could join the connection while it is in use.
        setLong<CURLOPT_HTTP_VERSION>(curl, CURL_HTTP_VERSION_1_1);
    }
    setLong<CURLOPT_SSL_OPTIONS>(curl, options);
    // A resumed session is not verified again (libcurl 8.14 resumes between transfers).
    if (config.verifier || partial_chain || own_certificate) {
        setLong<CURLOPT_SSL_SESSIONID_CACHE>(curl, 0);
    }
    // Connections of a certificate were made with its key. A key that does not fit must not use
    // them, but make one of its own, and fail.
    if (own_certificate && !keyFits(*config.own_cert, *config.own_pkey)) {
        setLong<CURLOPT_FRESH_CONNECT>(curl, 1);
    }
    if (partial_chain) {
        // libcurl caches filled stores by file name; one that allows partial chains must not be.
        setLong<CURLOPT_CA_CACHE_TIMEOUT>(curl, 0);
    } else if (config.tls_verify) {
        refreshAuthorities(curl, config);
    }
}

/// libcurl caches the store of a file for a day. Once the file has changed, only a store or a
/// session from after that may be used.
void TlsIsolation::refreshAuthorities(CURL* curl, const RequestConfig& config) {
    // What a directory holds may change without a trace in its own times.
    if (authoritiesDirectory(config)) setLong<CURLOPT_SSL_SESSIONID_CACHE>(curl, 0);
    const auto file = authoritiesFile(config);
    if (!file) return;
    const Authorities& now = known(*file);
    if (now.changed) setLong<CURLOPT_SSL_SESSIONID_CACHE>(curl, 0);
    const auto since = std::max(now.changed, now.doubted);
    if (!since) return;
    constexpr std::chrono::seconds day{86400};
    const auto age = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - *since);
    setLong<CURLOPT_CA_CACHE_TIMEOUT>(curl, static_cast<long>(std::min(age, day).count()));
}

const TlsIsolation::Authorities& TlsIsolation::known(const std::string& path) {
    const FileIdentity identity = identityOf(path);
    const auto found = authorities.find(path);
    if (found == authorities.end()) {
        if (authorities.size() == most_remembered) {
            authorities.clear();
            forgotten = Clock::now();
        }
        return authorities[path] = {identity, forgotten, {}};
    }
    if (found->second.identity != identity) found->second = {identity, Clock::now(), {}};
    return found->second;
}

void TlsIsolation::learn(const RequestConfig& config, CURLcode result) {
    const bool handshake_failed = result == CURLE_SSL_CONNECT_ERROR ||
                                  result == CURLE_PEER_FAILED_VERIFICATION ||
                                  result == CURLE_OUT_OF_MEMORY;
    if (!handshake_failed) return;
    const auto found = authorities.find(authoritiesFile(config).value_or(""));
    if (found != authorities.end()) found->second.doubted = Clock::now();
}

bool TlsIsolation::keyFits(const std::string& certificate, const std::string& key) {
    const FileIdentity of_certificate = identityOf(certificate);
    const FileIdentity of_key = identityOf(key);
    const auto pair = std::make_pair(certificate, key);
    auto known = keyChecks.find(pair);
    if (known == keyChecks.end()) {
        if (keyChecks.size() == most_remembered) keyChecks.clear();
        known = keyChecks.emplace(pair, KeyCheck{}).first;
    }
    KeyCheck& check = known->second;
    if (!check.fits || check.certificate != of_certificate || check.key != of_key) {
        check = {of_certificate, of_key, keyFitsCertificate(certificate, key)};
    }
    return check.fits;
}

TlsIsolation::FileIdentity TlsIsolation::identityOf(const std::string& path) {
    struct stat file {};
    if (stat(path.c_str(), &file) != 0) return {};
    return {static_cast<std::int64_t>(file.st_dev),
            static_cast<std::int64_t>(file.st_ino),
            static_cast<std::int64_t>(file.st_size),
            static_cast<std::int64_t>(file.st_mtim.tv_sec),
            static_cast<std::int64_t>(file.st_mtim.tv_nsec),
            static_cast<std::int64_t>(file.st_ctim.tv_sec),
            static_cast<std::int64_t>(file.st_ctim.tv_nsec)};
}

void withholdClientCertificate(CURL* curl, std::string_view line) {
    const std::string location = locationOf(line);
    if (location.empty()) return;
    long status = 0;
    const char* url = nullptr;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(curl, CURLINFO_EFFECTIVE_URL, &url);
    if (status < 300 || status > 399 || !leavesOrigin(url, location)) return;
    setText<CURLOPT_SSLCERT>(curl, nullptr);
    setText<CURLOPT_SSLKEY>(curl, nullptr);
}

}  // namespace zel::http
