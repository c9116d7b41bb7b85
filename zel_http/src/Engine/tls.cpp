// TLS: verification, authorities, client certificate, and the hooks, two functions that libcurl
// calls with OpenSSL's context. tls_isolation.cpp keeps connections of one policy from use under
// another. Engine thread; the hooks run inside libcurl's processing, once for each connection.

#include "zel_http/tls.h"

#include <openssl/ssl.h>

#include "Engine/easy_options.h"
#include "Engine/tls_policy.h"
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

CURLcode refuse(const char* format, const char* signature) {
    logging::getLogger("HttpClient").error(format, logging::arguments(signature));
    return CURLE_BAD_FUNCTION_ARGUMENT;
}

/// A handle has one TLS-context function; a request that wants both hooks gets this one.
CURLcode setupVerifierAndPartialChain(void* curl, void* sslContext, void* config) {
    const CURLcode result = tls::setupVerifierCallback(curl, sslContext, config);
    return result == CURLE_OK ? tls::configurePartialChain(curl, sslContext, config) : result;
}

}  // namespace

void Engine::addTlsConfig(void* curl, std::shared_ptr<Request> request) {
    RequestConfig& config = request->config;
    if (const auto task = ActiveTask::of(curl)) task->ownTlsConfig = true;
    if (!isHttps(config.url)) return;
    if (config.verifier) {
        setPointer<CURLOPT_SSL_CTX_DATA>(curl, &config);
        setFunction<CURLOPT_SSL_CTX_FUNCTION, curl_ssl_ctx_callback>(curl,
                                                                     tls::setupVerifierCallback);
    }
    if (hasClientCertificate(config)) {
        logger->debug(8, "Configuring own certificate for mTLS (cert=%s; pkey=%s)",
                      logging::arguments(*config.own_cert, *config.own_pkey));
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
    const auto file = authoritiesFile(config);
    const auto directory = authoritiesDirectory(config);
    setText<CURLOPT_CAINFO>(curl, file ? file->c_str() : nullptr);
    setText<CURLOPT_CAPATH>(curl, directory ? directory->c_str() : nullptr);
    if (config.tls_partial_chain) {
        setFunction<CURLOPT_SSL_CTX_FUNCTION, curl_ssl_ctx_callback>(
            curl, config.verifier ? setupVerifierAndPartialChain : tls::configurePartialChain);
    }
}

// libcurl calls the hooks: a logger's exception must not pass, but abandons the connection.
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
    // The slot takes a pointer to non-const; verifiers must only read.
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
