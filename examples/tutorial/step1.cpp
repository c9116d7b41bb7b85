// Step 1 of docs/tutorial.md: asks the server which release there is.

#include <iostream>

#include "logging/logger.h"
#include "oru/asio_executor.h"
#include "zel_http/client.h"
#include "zel_http/engine.h"

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    boost::asio::io_context loop;
    const auto work = boost::asio::make_work_guard(loop);
    oru::asio_executor executor(loop);
    auto& logger = logging::getLogger("update");
    zel::http::Engine engine([&](const auto& outcome) { executor.post(outcome, 0); }, &logger);
    const auto client = zel::http::createClient(executor, logger);

    zel::http::RequestConfig config;
    config.url = argv[1];
    const auto handle = client->start_request(
        config, {},
        [&](const zel::http::ResponseData& response) {
            std::cout << response.body;
            loop.stop();
        },
        [&](const zel::http::ErrorData& error) {
            std::cout << error.message << '\n';
            loop.stop();
        });
    loop.run();
}
