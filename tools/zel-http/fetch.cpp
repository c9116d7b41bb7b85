// Performs the requests of a command line, in as many slots as requests may run in parallel. Each
// slot performs one request after the other.

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
          slots_(std::min(command_line.parallel, total_)),
          timer_(session_.loop()) {}

    int run() {
        // Otherwise SIGPIPE would end the process when the reader of its output closes, and part
        // files would be left behind.
        if (!command_line_.files.empty()) static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
        session_.engine().setProxyConfig(command_line_.proxy, command_line_.proxy_user,
                                         command_line_.proxy_password);
        const auto begun = Clock::now();
        for (Slot& slot : slots_) startNext(slot);
        if (!command_line_.files.empty() && !command_line_.quiet) showProgress();
        const int status = session_.run([this] { interrupt(); });
        progress_.clear();
        report_.summarise(Clock::now() - begun);
        if (status != 0) return status;
        return report_.failed() ? 1 : 0;
    }

private:
    struct Slot {
        Outcome outcome;
        Recording recording;
        Clock::time_point begun;
        /// While a request runs, one of them is set: `download` when the body goes to a file.
        Client::RequestId id = Client::NoRequestId;
        std::shared_ptr<Download> download;
    };

    void startNext(Slot& slot) {
        if (started_ == total_) return;
        const std::size_t index = started_++ % command_line_.requests.size();
        slot.outcome = {};
        slot.outcome.request = &command_line_.requests[index];
        slot.recording.timings = {};
        slot.begun = Clock::now();
        if (command_line_.files.empty()) {
            startInMemory(slot);
        } else {
            slot.outcome.file = command_line_.files[index];
            startDownload(slot);
        }
    }

    /// The client keeps the body in memory and delivers the response when it is complete.
    void startInMemory(Slot& slot) {
        record(slot.recording);
        slot.id = session_.client().start_request(
            *slot.outcome.request, command_line_.log_filter,
            [this, &slot](Client::RequestId, const ResponseData& response) {
                slot.outcome.status = response.status;
                slot.outcome.headers = response.headers;
                slot.outcome.body_size = response.body.size();
                if (command_line_.repeat == 1) slot.outcome.body = response.body;
                finish(slot);
            },
            [this, &slot](Client::RequestId, const ErrorData& error) {
                slot.outcome.failure = nameOf(error.failure);
                slot.outcome.message = error.message;
                finish(slot);
            });
    }

    void startDownload(Slot& slot) {
        try {
            slot.download = std::make_shared<Download>(*slot.outcome.request, slot.outcome.file,
                                                       session_.executor(),
                                                       [this, &slot] { finishDownload(slot); });
        } catch (const std::system_error& error) {
            slot.outcome.failure = "cannot write " + slot.outcome.file;
            slot.outcome.message = error.code().message();
            session_.executor().post([this, &slot] { finish(slot); }, 0);
            return;
        }
        record(slot.recording);
        slot.download->start();
    }

    void finishDownload(Slot& slot) {
        const auto download = std::exchange(slot.download, nullptr);
        slot.outcome.status = download->status();
        slot.outcome.failure = download->failure();
        slot.outcome.message = download->message();
        slot.outcome.headers = download->headers();
        slot.outcome.body_size = download->written();
        written_ += download->written();
        finish(slot);
    }

    void finish(Slot& slot) {
        slot.id = Client::NoRequestId;
        const std::chrono::duration<double, std::milli> took = Clock::now() - slot.begun;
        slot.outcome.milliseconds = took.count();
        slot.outcome.timings = slot.recording.timings;
        progress_.clear();
        report_.add(slot.outcome);
        if (++finished_ == total_) {
            session_.stop();
        } else {
            startNext(slot);
        }
    }

    void interrupt() {
        progress_.clear();
        for (Slot& slot : slots_) {
            if (slot.id != Client::NoRequestId) session_.client().cancel_request(slot.id);
            if (slot.download != nullptr) slot.download->cancel();
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

    /// The sums over all downloads. The total is unknown (0) until every download has started and
    /// has a declared length.
    Amount amount() const {
        Amount amount{written_, written_};
        bool known = started_ == total_;
        for (const Slot& slot : slots_) {
            if (slot.download == nullptr) continue;
            amount.written += slot.download->written();
            amount.total += slot.download->total();
            known = known && slot.download->total() != 0;
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
    /// Bytes of the downloads that have ended.
    std::uint64_t written_ = 0;
    /// Declared before `session_`, to be destroyed after its engine, which writes their timings.
    std::deque<Slot> slots_;
    Session session_;
    boost::asio::steady_timer timer_;
};

}  // namespace

int fetch(const CommandLine& command_line) { return Fetch(command_line).run(); }

}  // namespace tool
