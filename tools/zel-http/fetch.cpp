// Performs the requests of a command line: lanes side by side, each with one request after the
// other.

#include "fetch.h"

#include <algorithm>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <deque>
#include <iostream>
#include <memory>
#include <system_error>
#include <utility>

#include "download.h"
#include "outcome.h"
#include "progress.h"
#include "report.h"
#include "session.h"
#include "text.h"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;
using zel::http::Client;
using zel::http::ErrorData;
using zel::http::ResponseData;

class Fetch {
public:
    explicit Fetch(const CommandLine& command_line)
        : command_line_(command_line),
          report_(command_line),
          total_(command_line.requests.size() * command_line.repeat),
          lanes_(std::min(command_line.parallel, total_)),
          timer_(session_.loop()) {}

    int run() {
        // Who reads our lines may go; the parts of files must not stay.
        if (!command_line_.files.empty()) static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
        session_.engine().setProxyConfig(command_line_.proxy, command_line_.proxy_user,
                                         command_line_.proxy_password);
        const auto begun = Clock::now();
        for (Lane& lane : lanes_) startNext(lane);
        if (!command_line_.files.empty() && !command_line_.quiet) showProgress();
        const int status = session_.run([this] { interrupt(); });
        progress_.clear();
        report_.summarise(Clock::now() - begun);
        if (status != 0) return status;
        return report_.failed() ? 1 : 0;
    }

private:
    struct Lane {
        Outcome outcome;
        Recording recording;
        Clock::time_point begun;
        /// One of them while a request runs.
        Client::RequestId id = Client::NoRequestId;
        std::shared_ptr<Download> download;
    };

    void startNext(Lane& lane) {
        if (started_ == total_) return;
        const std::size_t index = started_++ % command_line_.requests.size();
        lane.outcome = {};
        lane.outcome.request = &command_line_.requests[index];
        lane.recording.timings = {};
        lane.begun = Clock::now();
        if (command_line_.files.empty()) {
            startHeld(lane);
        } else {
            lane.outcome.file = command_line_.files[index];
            startDownload(lane);
        }
    }

    /// The answer is delivered when it is whole.
    void startHeld(Lane& lane) {
        record(lane.recording);
        lane.id = session_.client().start_request(
            *lane.outcome.request, command_line_.log_filter,
            [this, &lane](Client::RequestId, const ResponseData& response) {
                lane.outcome.status = response.status;
                lane.outcome.headers = response.headers;
                lane.outcome.body_size = response.body.size();
                if (command_line_.repeat == 1) lane.outcome.body = response.body;
                finish(lane);
            },
            [this, &lane](Client::RequestId, const ErrorData& error) {
                lane.outcome.failure = nameOf(error.failure);
                lane.outcome.message = error.message;
                finish(lane);
            });
    }

    void startDownload(Lane& lane) {
        try {
            lane.download = std::make_shared<Download>(*lane.outcome.request, lane.outcome.file,
                                                       session_.executor(),
                                                       [this, &lane] { finishDownload(lane); });
        } catch (const std::system_error& error) {
            lane.outcome.failure = "cannot write " + lane.outcome.file;
            lane.outcome.message = error.code().message();
            session_.executor().post([this, &lane] { finish(lane); }, 0);
            return;
        }
        record(lane.recording);
        lane.download->start();
    }

    void finishDownload(Lane& lane) {
        const auto download = std::exchange(lane.download, nullptr);
        lane.outcome.status = download->status();
        lane.outcome.failure = download->failure();
        lane.outcome.message = download->message();
        lane.outcome.headers = download->headers();
        lane.outcome.body_size = download->written();
        written_ += download->written();
        finish(lane);
    }

    void finish(Lane& lane) {
        lane.id = Client::NoRequestId;
        const std::chrono::duration<double, std::milli> took = Clock::now() - lane.begun;
        lane.outcome.milliseconds = took.count();
        lane.outcome.timings = lane.recording.timings;
        progress_.clear();
        report_.add(lane.outcome);
        if (++finished_ == total_) {
            session_.stop();
        } else {
            startNext(lane);
        }
    }

    void interrupt() {
        progress_.clear();
        for (Lane& lane : lanes_) {
            if (lane.id != Client::NoRequestId) session_.client().cancel_request(lane.id);
            if (lane.download != nullptr) lane.download->cancel();
        }
        std::cerr << "zel-http: interrupted, " << total_ - finished_ << " cancelled\n";
    }

    void showProgress() {
        timer_.expires_after(progress_.interval());
        timer_.async_wait([this](const boost::system::error_code& error) {
            if (error) return;
            progress_.show(amount(), Clock::now());
            showProgress();
        });
    }

    /// Of the downloads so far; the lengths of those to come are not known.
    Amount amount() const {
        Amount amount{written_, written_};
        bool known = started_ == total_;
        for (const Lane& lane : lanes_) {
            if (lane.download == nullptr) continue;
            amount.written += lane.download->written();
            amount.total += lane.download->total();
            known = known && lane.download->total() != 0;
        }
        if (!known) amount.total = 0;
        return amount;
    }

    const CommandLine& command_line_;
    Report report_;
    Progress progress_;
    const std::size_t total_;
    std::size_t started_ = 0;
    std::size_t finished_ = 0;
    /// By the downloads that have ended.
    std::uint64_t written_ = 0;
    /// Destroyed after the engine, which may still write their timings.
    std::deque<Lane> lanes_;
    Session session_;
    boost::asio::steady_timer timer_;
};

}  // namespace

int fetch(const CommandLine& command_line) { return Fetch(command_line).run(); }

}  // namespace tool
