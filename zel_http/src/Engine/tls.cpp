// TLS: verification, authorities, client certificate, and the two hooks into OpenSSL's context.
// Engine thread; the hooks run inside libcurl's processing, once for each new connection.

#include "zel_http/tls.h"

#include <openssl/ssl.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "Engine/easy_options.h"
#include "Engine/redirect_rule.h"
#include "Engine/tls_isolation.h"
#include "certificate/certificate.h"
#include "logging/logger.h"
#include "zel_http/engine.h"

namespace zel::http {
namespace {

constexpr char verifier_signature[] =
    "CURLcode zel::http::tls::setupVerifierCallback(CURL*, void*, void*)";
constexpr char partial_chain_signature[] =
    "CURLcode zel::http::tls::configurePartialChain(CURL*, void*, void*)";

using PlainVerifier = int (*)(int, X509_STORE_CTX*);

/// Whether TLS options apply: the URL begins with "https", in any case.
bool isHttps(const std::string& url) {
    constexpr char scheme[] = "https";
    return curl_strnequal(url.c_str(), scheme, sizeof scheme - 1) != 0;
}

/// A path with a NUL in it names no file; cut there it would name another.
bool given(const std::optional<std::string>& path) {
    return path && !path->empty() && path->find('\0') == std::string::npos;
}

bool readable(const std::optional<std::string>& path) {
    return given(path) && access(path->c_str(), R_OK) == 0;
}

CURLcode refuse(const char* format, const char* signature) {
    logging::getLogger("HttpClient").error(format, fmt::make_printf_args(signature));
    return CURLE_BAD_FUNCTION_ARGUMENT;
}

/// A handle has one TLS-context function; a request that wants both hooks gets this one.
CURLcode setupVerifierAndPartialChain(void* curl, void* sslContext, void* config) {
    const CURLcode result = tls::setupVerifierCallback(curl, sslContext, config);
    return result == CURLE_OK ? tls::configurePartialChain(curl, sslContext, config) : result;
}

void setAuthorities(CURL* curl, const RequestConfig& config) {
    std::optional<std::string> file = config.ca_file;
    if (!file && certificate::ca_pem_exists("default")) file = certificate::ca_path("default");
    setText<CURLOPT_CAINFO>(curl, given(file) ? file->c_str() : nullptr);
    setText<CURLOPT_CAPATH>(curl, given(config.ca_dir) ? config.ca_dir->c_str() : nullptr);
}

}  // namespace

void Engine::addTlsConfig(void* curl, std::shared_ptr<Request> request) {
    RequestConfig& config = request->config;
    if (!isHttps(config.url)) return;
    if (config.verifier) {
        setPointer<CURLOPT_SSL_CTX_DATA>(curl, &config);
        setFunction<CURLOPT_SSL_CTX_FUNCTION, curl_ssl_ctx_callback>(curl,
                                                                     tls::setupVerifierCallback);
    }
    if (readable(config.own_cert) && readable(config.own_pkey)) {
        logger->debug(8, "Configuring own certificate for mTLS (cert=%s; pkey=%s)",
                      fmt::make_printf_args(*config.own_cert, *config.own_pkey));
        setText<CURLOPT_SSLCERT>(curl, config.own_cert->c_str());
        setText<CURLOPT_SSLCERTTYPE>(curl, "PEM");
        setText<CURLOPT_SSLKEY>(curl, config.own_pkey->c_str());
        setText<CURLOPT_SSLKEYTYPE>(curl, "PEM");
    }
    if (!config.tls_verify) {
        setLong<CURLOPT_SSL_VERIFYHOST>(curl, 0);
        setLong<CURLOPT_SSL_VERIFYPEER>(curl, 0);
        return;
    }
    setLong<CURLOPT_SSLVERSION>(curl, CURL_SSLVERSION_TLSv1);
    setLong<CURLOPT_SSL_VERIFYPEER>(curl, 1);
    setLong<CURLOPT_SSL_VERIFYHOST>(curl, 2);
    setAuthorities(curl, config);
    if (config.tls_partial_chain) {
        setFunction<CURLOPT_SSL_CTX_FUNCTION, curl_ssl_ctx_callback>(
            curl, config.verifier ? setupVerifierAndPartialChain : tls::configurePartialChain);
    }
}

void isolateTlsPolicy(void* curl, const RequestConfig& config) {
    if (!isHttps(config.url)) return;
    const bool partial_chain = config.tls_verify && config.tls_partial_chain;
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
    // libcurl caches filled stores by file name; one that allows partial chains must not be found.
    if (partial_chain) setLong<CURLOPT_CA_CACHE_TIMEOUT>(curl, 0);
    setLong<CURLOPT_SSL_OPTIONS>(curl, options);
}

void withholdClientCertificate(void* curl, std::string_view line) {
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

// libcurl calls the hooks: what a logger throws must not pass through it, and nothing is connected.
CURLcode tls::setupVerifierCallback(void* /*curl*/, void* sslContext, void* config) try {
    logging::getLogger("HttpClient").debug(8, verifier_signature, {});
    if (sslContext == nullptr) return refuse("%s: Missing SSL_CTX", verifier_signature);
    if (config == nullptr) return refuse("%s: Missing RequestConfig", verifier_signature);
    const auto& request = *static_cast<const RequestConfig*>(config);
    const auto* verifier = request.verifier.target<PlainVerifier>();
    if (verifier == nullptr) {
        return refuse("%s: verifier is not a plain function", verifier_signature);
    }
    auto* context = static_cast<SSL_CTX*>(sslContext);
    // The slot takes a pointer to non-const; verifiers only read.
    char* data =
        request.verifier_data ? const_cast<char*>(request.verifier_data->c_str()) : nullptr;
    SSL_CTX_set_ex_data(context, certificate::sslctx_data_index(), data);
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, *verifier);
    return CURLE_OK;
} catch (...) {
    return CURLE_BAD_FUNCTION_ARGUMENT;
}

CURLcode tls::configurePartialChain(void* /*curl*/, void* sslContext, void* /*config*/) try {
    logging::getLogger("HttpClient").debug(8, partial_chain_signature, {});
    if (sslContext == nullptr) return refuse("%s: Missing SSL_CTX", partial_chain_signature);
    X509_STORE* store = SSL_CTX_get_cert_store(static_cast<SSL_CTX*>(sslContext));
    if (store == nullptr) {
        return refuse("%s: Cannot extract X509_STORE store from an SSL_CTX",
                      partial_chain_signature);
    }
    X509_STORE_set_flags(store, X509_V_FLAG_PARTIAL_CHAIN);
    return CURLE_OK;
} catch (...) {
    return CURLE_BAD_FUNCTION_ARGUMENT;
}

}  // namespace zel::http
