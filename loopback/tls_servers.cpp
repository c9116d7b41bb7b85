#include "loopback/tls_servers.h"

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

/// All paths lie in the directory of the certificates, so nginx needs no rights and leaves nothing.
constexpr const char* nginx_configuration = R"(daemon off; pid @dir@/nginx.pid;
events {}
http {
    access_log off;
    client_body_temp_path @dir@/b; proxy_temp_path @dir@/p; fastcgi_temp_path @dir@/f;
    uwsgi_temp_path @dir@/u; scgi_temp_path @dir@/s;
    server {
        listen @http2@ ssl http2;
        ssl_certificate @dir@/local.pem;
        ssl_certificate_key @dir@/local.key;
        location / { return 200 $server_protocol; }
    }
}
)";

}  // namespace

TlsServers::TlsServers()
    : local_(serverContext(certificates_, "local", false)),
      elsewhere_(serverContext(certificates_, "elsewhere", false)),
      mutual_(serverContext(certificates_, "local", true)),
      nginx_("nginx -c @conf@ -e /dev/null", nginx_configuration, certificates_.file("")) {}

std::string TlsServers::http2() const {
    return nginx_.runs() ? "https://" + nginx_.address("http2") + "/" : "";
}

}  // namespace loopback
