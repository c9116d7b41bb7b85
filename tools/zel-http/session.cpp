#include "session.h"

#include <csignal>

#include "easy_setup.h"
#include "logging/logger.h"

namespace tool {

Session::Session()
    : signals_(loop_),
      executor_(loop_),
      engine_(std::make_unique<FieldsEngine>(
          [this](const std::function<void()>& closure) { executor_.post(closure, 0); },
          &logging::getLogger("HttpClient"))),
      client_(zel::http::createClient(executor_, logging::getLogger("zel-http"))) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction before {};
        sigaction(signal, nullptr, &before);
        if (before.sa_handler != SIG_IGN) signals_.add(signal);
    }
}

Session::~Session() {
    client_.reset();
    engine_.reset();
}

int Session::run(const std::function<void()>& interrupted) {
    constexpr int ended_by_signal = 128;
    int status = 0;
    signals_.async_wait([&](const boost::system::error_code& error, int signal) {
        if (error) return;
        status = ended_by_signal + signal;
        interrupted();
        stop();
    });
    loop_.restart();
    loop_.run();
    if (status == 0) {  // a signal that came during the last handler, or ended it early
        loop_.restart();
        loop_.poll();
    }
    signals_.cancel();
    return status;
}

}  // namespace tool
