#pragma once

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "oru/asio_executor.h"
#include "support/null_logger.h"
#include "zel_http/client.h"
#include "zel_http/engine.h"

namespace test {

/// Whole exchanges of a client whose connections are socket pairs: each finds its answer ready.
/// Whatever a transfer connects to, and by whatever redirect, no packet leaves the process.
class PairedExchange {
public:
    PairedExchange();

    /// Performs the request; the connections it makes are answered by `answers` in their order and
    /// with nothing after that. Returns the count of outcomes, one if all is well.
    int perform(const zel::http::RequestConfig& config, std::deque<std::string> answers);

    /// Of the last request: what each connection was sent, and what came of it.
    std::vector<std::string> sent;
    zel::http::ResponseData response;

private:
    class PairedEngine;

    NullLogger logger_;
    boost::asio::io_context loop_;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard_{
        loop_.get_executor()};
    oru::asio_executor executor_{loop_};
    std::unique_ptr<PairedEngine> engine_;
    std::shared_ptr<zel::http::Client> client_;
};

}  // namespace test
