#pragma once

#include <string>

#include "loopback/certificates.h"
#include "loopback/daemon.h"
#include "loopback/origin.h"

namespace loopback {

/// Servers that differ in their certificates or in what they ask of a client.
class TlsServers {
public:
    TlsServers();
    TlsServers(const TlsServers&) = delete;
    TlsServers& operator=(const TlsServers&) = delete;
    ~TlsServers() = default;

    const Certificates& certificates() const { return certificates_; }
    const Origin& local() const { return local_; }
    /// With a certificate for another name.
    const Origin& elsewhere() const { return elsewhere_; }
    /// Asks for a client certificate.
    const Origin& mutual() const { return mutual_; }
    /// The URL of an nginx that speaks HTTP/2; empty when nginx is not installed.
    std::string http2() const;

private:
    Certificates certificates_;
    Origin local_;
    Origin elsewhere_;
    Origin mutual_;
    Daemon nginx_;
};

}  // namespace loopback
