#pragma once

#include <openssl/evp.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "zel_http/records.h"

namespace test {

/// SHA-256 of bytes that come in parts.
class Digest {
public:
    Digest();
    void add(const char* data, std::size_t length);
    /// In hexadecimal; once.
    std::string finish();

private:
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context_{EVP_MD_CTX_new(),
                                                                     EVP_MD_CTX_free};
};
std::string digestOf(const std::string& bytes);

/// Where the requests of the load go.
struct Targets {
    std::string origin;
    std::string tls_origin;
    std::string authorities;  ///< PEM file that knows `tls_origin`
    std::string broken;       ///< closes in the middle of its body
    std::string closed;       ///< nobody listens there
};

/// One request and the one outcome it may have: "200 " and the body's digest, or the name of the
/// failure; empty for a request that can only be cancelled.
struct Work {
    zel::http::RequestConfig config;
    std::string expected;
};

using Random = std::minstd_rand;

/// Any of the requests of the load: methods, sizes, TLS, redirects, failures.
Work anyWork(const Targets& targets, Random& random);
/// A download, short or long.
Work download(const Targets& targets, Random& random);
/// No answer ever comes.
Work endlessWait(const Targets& targets);

std::string outcomeOf(const zel::http::ResponseData& response);
std::string outcomeOf(const zel::http::ErrorData& error);

}  // namespace test
