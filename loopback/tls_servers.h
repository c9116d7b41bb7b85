#pragma once

#include <sys/types.h>

#include <string>

#include "loopback/certificates.h"
#include "loopback/origin.h"

namespace loopback {

/// The servers of the TLS scenarios, with certificates made for the run.
class TlsServers {
public:
    TlsServers();
    TlsServers(const TlsServers&) = delete;
    TlsServers& operator=(const TlsServers&) = delete;
    ~TlsServers();

    const Certificates& certificates() const { return certificates_; }
    const Origin& local() const { return local_; }
    /// With a certificate for another name.
    const Origin& elsewhere() const { return elsewhere_; }
    /// Asks for a client certificate.
    const Origin& mutual() const { return mutual_; }
    /// The URL of an nginx that speaks HTTP/2; empty where there is none to start.
    const std::string& http2() const { return http2_; }

private:
    void startNginx();

    Certificates certificates_;
    Origin local_;
    Origin elsewhere_;
    Origin mutual_;
    std::string http2_;
    pid_t nginx_ = -1;
};

}  // namespace loopback
