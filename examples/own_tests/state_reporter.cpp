#include "state_reporter.h"

#include <utility>

using namespace std::chrono_literals;

StateReporter::StateReporter(zel::http::Client& client, std::string url, Later later)
    : client_(client), url_(std::move(url)), later_(std::move(later)) {}

void StateReporter::report(std::string state) {
    state_ = std::move(state);
    send();
}

void StateReporter::send() {
    retry_.cancel();
    zel::http::RequestConfig config;
    config.method = zel::http::Method::PUT;
    config.url = url_;
    config.headers["Content-Type"] = "text/plain";
    config.body = state_;
    config.timeout = 10s;
    request_ = client_.start_request(
        config, {},
        [this](const zel::http::ResponseData& response) {
            if (response.status / 100 == 2) {
                reported_ = state_;
            } else {
                sendLater();
            }
        },
        [this](const zel::http::ErrorData& /*error*/) { sendLater(); });
}

void StateReporter::sendLater() {
    retry_ = {};
    later_(60s, retry_.wrap(oru::CallbackType::Once, [this] { send(); }));
}
