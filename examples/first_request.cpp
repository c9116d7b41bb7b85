#include <iostream>

#include "logging/logger.h"
#include "oru/asio_executor.h"
#include "zel_http/client.h"
#include "zel_http/engine.h"

int main(int argc, char** argv) {
    boost::asio::io_context loop;
    oru::asio_executor executor(loop);
    auto& logger = logging::getLogger("app");
    zel::http::Engine engine([&](const auto& outcome) { executor.post(outcome, 0); }, &logger);
    const auto client = zel::http::createClient(executor, logger);

    zel::http::RequestConfig config;
    config.url = argc > 1 ? argv[1] : "http://localhost/";
    const auto handle = client->start_request(
        config, {},
        [&](const auto& response) { std::cout << response.status << '\n', loop.stop(); },
        [&](const auto& error) { std::cout << error.message << '\n', loop.stop(); });
    const auto work = boost::asio::make_work_guard(loop);
    loop.run();
}
