#include "loopback/tls_servers.h"

#include <fmt/format.h>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <fstream>
#include <memory>

namespace loopback {
namespace {

namespace ssl = boost::asio::ssl;

std::shared_ptr<ssl::context> serverContext(const Certificates& certificates,
                                            const std::string& name, bool asks_client) {
    auto context = std::make_shared<ssl::context>(ssl::context::tls_server);
    context->use_certificate_chain_file(certificates.file(name + ".pem"));
    context->use_private_key_file(certificates.file(name + ".key"), ssl::context::pem);
    if (asks_client) {
        context->load_verify_file(certificates.file("root.pem"));
        context->set_verify_mode(ssl::verify_peer | ssl::verify_fail_if_no_peer_cert);
    }
    return context;
}

/// Everything nginx writes stays in the directory.
constexpr const char* nginx_configuration =
    R"(daemon off; pid {0}/nginx.pid; error_log {0}/nginx.log;
events {{}}
http {{
    access_log off;
    client_body_temp_path {0}/b; proxy_temp_path {0}/p; fastcgi_temp_path {0}/f;
    uwsgi_temp_path {0}/u; scgi_temp_path {0}/s;
    server {{
        listen 127.0.0.1:{1} ssl http2;
        ssl_certificate {0}/local.pem;
        ssl_certificate_key {0}/local.key;
        location / {{ return 200 $server_protocol; }}
    }}
}}
)";

/// Starts nginx with the configuration; -1 without one.
pid_t spawnNginx(const std::string& configuration, const std::string& log) {
    std::array<const char*, 6> arguments = {"nginx", "-c",        configuration.c_str(),
                                            "-e",    log.c_str(), nullptr};
    for (const char* path : {"/usr/sbin/nginx", "/usr/bin/nginx", "/usr/local/sbin/nginx"}) {
        pid_t child = -1;
        if (access(path, X_OK) == 0 &&
            posix_spawn(&child, path, nullptr, nullptr, const_cast<char**>(arguments.data()),
                        environ) == 0) {
            return child;
        }
    }
    return -1;
}

/// Waits, up to 5 s, until somebody listens there.
bool answers(unsigned short port) {
    boost::asio::io_context loop;
    for (int i = 0; i < 500; ++i, usleep(10'000)) {
        boost::system::error_code refused;
        boost::asio::ip::tcp::socket(loop).connect({boost::asio::ip::address_v4::loopback(), port},
                                                   refused);
        if (!refused) return true;
    }
    return false;
}

}  // namespace

TlsServers::TlsServers()
    : local_(serverContext(certificates_, "local", false)),
      elsewhere_(serverContext(certificates_, "elsewhere", false)),
      mutual_(serverContext(certificates_, "local", true)) {
    startNginx();
}

TlsServers::~TlsServers() {
    if (nginx_ <= 0) return;
    kill(nginx_, SIGTERM);
    waitpid(nginx_, nullptr, 0);
}

void TlsServers::startNginx() {
    const unsigned short port = closedPort();
    const std::string configuration = certificates_.file("nginx.conf");
    std::ofstream(configuration) << fmt::format(nginx_configuration, certificates_.file(""), port);
    nginx_ = spawnNginx(configuration, certificates_.file("nginx.log"));
    if (nginx_ > 0 && answers(port)) http2_ = fmt::format("https://127.0.0.1:{}/", port);
}

}  // namespace loopback
