#pragma once

#include <string>

#include "loopback/certificates.h"
#include "loopback/daemon.h"
#include "loopback/origin.h"

namespace loopback {

/// The servers of the TLS scenarios, with certificates made for the run.
class TlsServers {
public:
    TlsServers();
    TlsServers(const TlsServers&) = delete;
    TlsServers& operator=(const TlsServers&) = delete;

    const Certificates& certificates() const { return certificates_; }
    const Origin& local() const { return local_; }
    /// With a certificate for another name.
    const Origin& elsewhere() const { return elsewhere_; }
    /// Asks for a client certificate.
    const Origin& mutual() const { return mutual_; }
    /// The URL of an nginx that speaks HTTP/2; empty where there is none to start.
    std::string http2() const;

private:
    Certificates certificates_;
    Origin local_;
    Origin elsewhere_;
    Origin mutual_;
    Daemon nginx_;
};

}  // namespace loopback
