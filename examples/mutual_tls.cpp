// A request to a server that asks for the client's certificate and has one of a private authority:
// mutual_tls URL CA_FILE OWN_CERT OWN_KEY, the latter three PEM files.

#include <iostream>

#include "logging/logger.h"
#include "oru/asio_executor.h"
#include "zel_http/client.h"
#include "zel_http/engine.h"

int main(int argc, char** argv) {
    if (argc != 5) {
        std::cerr << "usage: mutual_tls URL CA_FILE OWN_CERT OWN_KEY\n";
        return 2;
    }
    boost::asio::io_context loop;
    const auto work = boost::asio::make_work_guard(loop);
    oru::asio_executor executor(loop);
    auto& logger = logging::getLogger("app");
    zel::http::Engine engine([&](const auto& outcome) { executor.post(outcome, 0); }, &logger);
    const auto client = zel::http::createClient(executor, logger);

    zel::http::RequestConfig config;
    config.url = argv[1];
    config.ca_file = argv[2];  // in place of the system's authorities
    config.own_cert = argv[3];
    config.own_pkey = argv[4];  // an unreadable file leaves the client without a certificate
    bool welcome = false;
    const auto handle = client->start_request(
        config, {},
        [&](const zel::http::ResponseData& response) {
            welcome = zel::http::protocol::success_status(response.status);
            std::cout << response.status << ' ' << response.body;
            loop.stop();
        },
        [&](const zel::http::ErrorData& error) {  // also when either side refuses the other
            std::cout << error.failure << ' ' << error.message << '\n';
            loop.stop();
        });
    loop.run();
    return welcome ? 0 : 1;
}
