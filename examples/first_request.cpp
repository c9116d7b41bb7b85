#include <iostream>

#include "logging/logger.h"
#include "oru/asio_executor.h"
#include "zel_http/client.h"
#include "zel_http/engine.h"

int main(int argc, char** argv) {
    boost::asio::io_context loop;  // the application's own loop, on its own thread
    const auto work = boost::asio::make_work_guard(loop);  // run() waits for more
    oru::asio_executor executor(loop);
    auto& logger = logging::getLogger("app");
    zel::http::Engine engine([&](const auto& outcome) { executor.post(outcome, 0); }, &logger);
    const auto client = zel::http::createClient(executor, logger);

    const auto show = [&](const auto& text) {
        std::cout << text << '\n';
        loop.stop();
    };
    zel::http::RequestConfig config;
    config.url = argc > 1 ? argv[1] : "http://localhost/";
    const auto handle = client->start_request(  // dropping the handle cancels the request
        config, {}, [&](const zel::http::ResponseData& response) { show(response.status); },
        [&](const zel::http::ErrorData& error) { show(error.message); });
    loop.run();
}
