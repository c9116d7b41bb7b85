#include "session.h"

#include <csignal>

#include "logging/logger.h"

namespace tool {

Session::Session()
    : signals_(loop_, SIGINT, SIGTERM),
      executor_(loop_),
      engine_(std::make_unique<zel::http::Engine>(
          [this](const std::function<void()>& closure) { executor_.post(closure, 0); },
          &logging::getLogger("HttpClient"))),
      client_(zel::http::createClient(executor_, logging::getLogger("zel-http"))) {}

Session::~Session() {
    client_.reset();
    engine_.reset();
}

bool Session::run(const std::function<void()>& interrupted) {
    bool completed = true;
    signals_.async_wait([&](const boost::system::error_code& error, int /*signal*/) {
        if (error) return;
        completed = false;
        interrupted();
        stop();
    });
    loop_.restart();
    loop_.run();
    signals_.cancel();
    return completed;
}

}  // namespace tool
