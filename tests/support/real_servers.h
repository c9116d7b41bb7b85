#pragma once

#include <string>

#include "loopback/certificates.h"
#include "loopback/daemon.h"
#include "support/directory.h"
#include "support/engine_test.h"

namespace test {

inline std::string configurationOf(const std::string& server) {
    return contentOf(ZEL_HTTP_SERVER_CONFIGURATIONS + server + ".conf");
}

/// With the servers of nginx.conf.
class RealServersTest : public EngineTest {
protected:
    std::string file(const std::string& name) const { return certificates.file(name); }
    /// https of that server.
    std::string url(const std::string& server, const std::string& target = "/") const {
        return "https://" + nginx.address(server) + target;
    }

    const Certificates certificates;
    const Daemon nginx{"nginx -c @conf@ -e " + file("nginx.error"), configurationOf("nginx"),
                       file("")};
};

}  // namespace test
