#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "zel_http/client.h"

/// Tells a server the state of the device. What fails is tried again later, with the newest state.
/// Belongs to the client's thread.
class StateReporter {
public:
    /// Runs a function after a while, on the client's thread: on a device, by a timer of its loop.
    using Later = std::function<void(std::chrono::seconds, std::function<void()>)>;

    /// `client` must outlive the reporter.
    StateReporter(zel::http::Client& client, std::string url, Later later);

    /// Sends `state`, in the place of what has not reached the server yet.
    void report(std::string state);
    /// The last state that the server has taken.
    const std::string& reported() const { return reported_; }

private:
    struct Retry {};

    void send();
    void sendLater();

    zel::http::Client& client_;
    const std::string url_;
    const Later later_;
    std::string state_;
    std::string reported_;
    // What they hold does not run any more once they are dropped or have something else.
    oru::AsyncActionHandle<Retry> retry_;
    oru::AsyncActionHandle<zel::http::ZelHttpClientTag> request_;
};
