// Requests from a program without a loop: a thread of the library's platform layer is the client's,
// and the main thread waits for the answer.

#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <string>

#include "logging/logger.h"
#include "oru/thread_executor.h"
#include "zel_http/client.h"
#include "zel_http/engine.h"

namespace {

/// Runs `work` on the executor's thread and waits for it.
void runOn(oru::executor& executor, const std::function<void()>& work) {
    const auto task = std::make_shared<std::packaged_task<void()>>(work);
    executor.post([task] { (*task)(); }, 0);
    task->get_future().get();
}

}  // namespace

int main(int argc, char** argv) {
    oru::thread_executor network("network");
    auto& logger = logging::getLogger("app");
    zel::http::Engine engine([&](const auto& outcome) { network.post(outcome, 0); }, &logger);

    zel::http::RequestConfig config;
    config.url = argc > 1 ? argv[1] : "http://localhost/";
    const auto answer = std::make_shared<std::promise<std::string>>();

    // The client and its handles are made, used and destroyed on the executor's thread.
    std::shared_ptr<zel::http::Client> client;
    oru::AsyncActionHandle<zel::http::ZelHttpClientTag> handle;
    runOn(network, [&] {
        client = zel::http::createClient(network, logger);
        handle = client->start_request(
            config, {},
            [answer](const zel::http::ResponseData& response) {
                answer->set_value(std::to_string(response.status) + ", " +
                                  std::to_string(response.body.size()) + " bytes");
            },
            [answer](const zel::http::ErrorData& error) { answer->set_value(error.message); });
    });
    std::cout << answer->get_future().get() << '\n';
    runOn(network, [&] {
        handle.cancel();
        client.reset();
    });
}
