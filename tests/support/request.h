#pragma once

#include <chrono>
#include <string>
#include <utility>

#include "zel_http/records.h"

namespace test {

using zel::http::Method;
using zel::http::RequestConfig;

/// The outcome of a request that takes no more of a body.
const std::string failed_writing =
    "<Protocol failure> Failed writing received data to disk/application";

/// A GET without the default header line, to be completed call by call.
class Get : public RequestConfig {
public:
    explicit Get(const std::string& target) : RequestConfig(Method::GET, target, {}, {}, {}, {}) {
        ca_file.reset();
    }
    template <typename Field, typename Value>
    Get& set(Field RequestConfig::*field, Value value) {
        this->*field = std::move(value);
        return *this;
    }
    Get& sends(Method with, const std::string& text) {
        return set(&RequestConfig::method, with).set(&RequestConfig::body, text);
    }
    Get& header(const std::string& name, const std::string& value) {
        headers.emplace(name, value);
        return *this;
    }
    Get& login(const std::string& name, const std::string& secret) {
        return set(&RequestConfig::user, name).set(&RequestConfig::password, secret);
    }
    Get& within(int milliseconds) {
        return set(&RequestConfig::timeout, std::chrono::milliseconds(milliseconds));
    }
    Get& atMost(int bytes) { return set(&RequestConfig::max_download_size, bytes); }
    Get& trusting(const std::string& file) { return set(&RequestConfig::ca_file, file); }
    Get& insecure() { return set(&RequestConfig::tls_verify, false); }
    Get& partial() { return set(&RequestConfig::tls_partial_chain, true); }
    Get& by(int (*verify)(int, X509_STORE_CTX*)) { return set(&RequestConfig::verifier, verify); }
    Get& identity(const std::string& certificate, const std::string& key) {
        return set(&RequestConfig::own_cert, certificate).set(&RequestConfig::own_pkey, key);
    }
};

}  // namespace test
