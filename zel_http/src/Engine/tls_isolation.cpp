#include "Engine/tls_isolation.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>

#include "Engine/curl_version.h"
#include "Engine/easy_options.h"
#include "Engine/redirect_rule.h"
#include "Engine/tls_policy.h"

namespace zel::http {
namespace {

/// The most files, or pairs of them, that are remembered; a device uses a few.
constexpr std::size_t most_remembered = 64;

/// A pass-phrase callback that gives none; OpenSSL's own asks on the terminal.
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
    ERR_clear_error();  // libcurl would report a leftover error as its own
    return fits;
}

/// Whether libcurl's session cache is usable. Before 8.12 it serves only the redirects of one
/// transfer, and frees a name twice when memory runs out.
bool hasUsableSessionCache() { return !curlIsBefore(8, 12); }

}  // namespace

void TlsIsolation::apply(CURL* curl, const RequestConfig& config) {
    const bool fresh = config.reset_state;  // starts without a session
    if (!hasUsableSessionCache() || fresh) setLong<CURLOPT_SSL_SESSIONID_CACHE>(curl, 0);
    if (!isHttps(config.url)) return;
    // Without it OpenSSL asks on the terminal for the key's pass phrase: the engine thread blocks.
    setText<CURLOPT_KEYPASSWD>(curl, "");
    const bool partial_chain = config.tls_verify && config.tls_partial_chain;
    const bool own_certificate = hasClientCertificate(config);
    long options = 0;
    // libcurl allows partial chains by itself unless told not to.
    if (config.tls_verify && !partial_chain) options |= CURLSSLOPT_NO_PARTIALCHAIN;
    if (config.verifier) {
        // libcurl built with OpenSSL uses this bit only to match connections. As no other policy
        // sets it, no other transfer gets a connection that a verifier accepted.
        options |= CURLSSLOPT_REVOKE_BEST_EFFORT;
        setLong<CURLOPT_FRESH_CONNECT>(curl, 1);
        setLong<CURLOPT_FORBID_REUSE>(curl, 1);
        // Over HTTP/2 another transfer could join the connection while it is in use.
        setLong<CURLOPT_HTTP_VERSION>(curl, CURL_HTTP_VERSION_1_1);
    }
    setLong<CURLOPT_SSL_OPTIONS>(curl, options);
    // A resumed session is not verified again (libcurl resumes between transfers from 8.12 on).
    if (config.verifier || partial_chain || own_certificate) {
        setLong<CURLOPT_SSL_SESSIONID_CACHE>(curl, 0);
    }
    // libcurl matches connections by the certificate's path, not by the key. With a key that does
    // not fit a new connection must be made, which fails.
    if (own_certificate && !keyFits(*config.own_cert, *config.own_pkey)) {
        setLong<CURLOPT_FRESH_CONNECT>(curl, 1);
    }
    if (partial_chain) {
        // libcurl caches stores by file name; one that allows partial chains must not serve others.
        setLong<CURLOPT_CA_CACHE_TIMEOUT>(curl, 0);
    } else if (config.tls_verify) {
        refreshAuthorities(curl, config);
    }
}

/// libcurl caches a file's store for a day. Once the file has changed, only stores and sessions
/// made since then may be used: the cache's time limit becomes the time since the change.
void TlsIsolation::refreshAuthorities(CURL* curl, const RequestConfig& config) {
    // A file in a directory can change without changing the directory's times.
    if (authoritiesDirectory(config)) setLong<CURLOPT_SSL_SESSIONID_CACHE>(curl, 0);
    const auto file = authoritiesFile(config);
    if (!file) return;
    const Authorities& now = currentState(*file);
    if (now.changed) setLong<CURLOPT_SSL_SESSIONID_CACHE>(curl, 0);
    const auto since = std::max(now.changed, now.handshakeFailed);
    if (!since) return;
    constexpr std::chrono::seconds day{86400};
    const auto age = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - *since);
    setLong<CURLOPT_CA_CACHE_TIMEOUT>(curl, static_cast<long>(std::min(age, day).count()));
}

const TlsIsolation::Authorities& TlsIsolation::currentState(const std::string& path) {
    const FileIdentity identity = identityOf(path);
    const auto found = authorities.find(path);
    if (found == authorities.end()) {
        if (authorities.size() == most_remembered) {
            authorities.clear();
            emptied = Clock::now();
        }
        return authorities[path] = {identity, emptied, {}};
    }
    if (found->second.identity != identity) found->second = {identity, Clock::now(), {}};
    return found->second;
}

void TlsIsolation::noteResult(const RequestConfig& config, CURLcode result) {
    const bool handshake_failed = result == CURLE_SSL_CONNECT_ERROR ||
                                  result == CURLE_PEER_FAILED_VERIFICATION ||
                                  result == CURLE_OUT_OF_MEMORY;
    if (!handshake_failed) return;
    const auto found = authorities.find(authoritiesFile(config).value_or(""));
    if (found != authorities.end()) found->second.handshakeFailed = Clock::now();
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

void dropClientCertificateOnCrossOrigin(CURL* curl, std::string_view line) {
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
