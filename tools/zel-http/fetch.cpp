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

#include "easy_setup.h"
#include "exchange.h"
#include "exit_status.h"
#include "logging/logger.h"
#include "outcome.h"
#include "output.h"
#include "progress.h"
#include "report.h"
#include "retry_rule.h"
#include "session.h"
#include "text.h"
#include "zel_http/download.h"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;
using zel::http::DownloadFailure;
using zel::http::DownloadHead;

constexpr unsigned first_error = 400;

class Fetch {
public:
    explicit Fetch(const CommandLine& command_line)
        : command_line_(command_line),
          easy_setup_(command_line.easy),
          report_(command_line),
          total_(command_line.requests.size() * command_line.repeat),
          slots_(std::min(command_line.parallel, total_)),
          timer_(session_.loop()) {}

    int run() {
        // A reader that closes its pipe is a failure to tell, not the end of the process.
        static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
        session_.engine().setProxyConfig(command_line_.proxy, command_line_.proxy_credentials.user,
                                         command_line_.proxy_credentials.password);
        const auto begun = Clock::now();
        for (Slot& slot : slots_) startNext(slot);
        if (command_line_.show_progress) showProgress();
        const int status = session_.run([this] { interrupt(); });
        progress_.clear();
        report_.summarise(Clock::now() - begun);
        if (command_line_.show_statistics) report_.add(session_.engine().statistics());
        return status != 0 ? status : report_.exitStatus();
    }

private:
    /// One request at a time: an exchange where bodies are held in memory, otherwise a download.
    struct Slot {
        Outcome outcome;
        std::size_t index = 0;
        unsigned tries = 0;
        Clock::time_point begun;
        std::shared_ptr<Exchange> exchange;
        std::unique_ptr<Output> output;
        zel::http::Download download;  // goes before the output that it writes to
        std::unique_ptr<boost::asio::steady_timer> retry;
        Amount amount;
    };

    void startNext(Slot& slot) {
        if (started_ == total_) return;
        slot.index = started_++ % command_line_.requests.size();
        slot.tries = 0;
        slot.begun = Clock::now();
        start(slot);
    }

    void start(Slot& slot) {
        ++slot.tries;
        slot.outcome = {};
        slot.outcome.request = &command_line_.requests[slot.index];
        slot.outcome.index = slot.index;
        slot.outcome.file = command_line_.files[slot.index];
        if (command_line_.holds_bodies) {
            startExchange(slot);
        } else {
            startDownload(slot);
        }
    }

    void startExchange(Slot& slot) {
        const Exchange::Limits limits{command_line_.repeat == 1, command_line_.most_bytes};
        slot.exchange = std::make_shared<Exchange>(*slot.outcome.request, limits,
                                                   [this, &slot] { finishExchange(slot); });
        slot.exchange->start();
    }

    void finishExchange(Slot& slot) {
        const auto exchange = std::exchange(slot.exchange, nullptr);
        Outcome& outcome = slot.outcome;
        outcome.status = exchange->status();
        outcome.failure = exchange->failure();
        outcome.message = exchange->message();
        outcome.head = std::move(exchange->head());
        outcome.trailers = std::move(exchange->trailers());
        outcome.fields = exchange->fields();
        outcome.body = std::move(exchange->body());
        outcome.body_size = exchange->bodySize();
        outcome.facts = exchange->facts();
        if (exchange->isTooLarge()) outcome.exit_status = CURLE_FILESIZE_EXCEEDED;
        const bool fails = command_line_.fails_on_errors || isReplaced(outcome.file);
        outcome.is_error_answer = fails && outcome.status >= first_error;
        finish(slot);
    }

    void startDownload(Slot& slot) {
        try {
            const bool resumes = command_line_.continues || slot.tries > 1;
            // What reads a pipe sees its end when it is closed, and a second opening waits for
            // another reader.
            if (slot.output == nullptr) {
                slot.output = std::make_unique<Output>(slot.outcome.file, resumes);
            }
            slot.download =
                zel::http::startDownload(session_.executor(), logging::getLogger("zel-http"),
                                         describe(slot), callbacksFor(slot));
        } catch (const std::system_error& error) {
            slot.outcome.failure = nameOf(DownloadFailure::Sink);
            slot.outcome.message = slot.outcome.file + ": " + error.code().message();
            slot.outcome.exit_status = exitStatusOf(DownloadFailure::Sink);
            session_.executor().post([this, &slot] { finish(slot); }, 0);
        }
    }

    zel::http::DownloadConfig describe(const Slot& slot) const {
        zel::http::DownloadConfig config;
        config.request = *slot.outcome.request;
        config.sink = slot.output->sink();
        config.limits.stall = {};
        config.limits.size = command_line_.most_bytes;
        config.retry.most_retries = 0;
        config.any_status = true;  // `takesBody` decides
        config.progress_interval = std::chrono::milliseconds(100);
        return config;
    }

    zel::http::DownloadCallbacks callbacksFor(Slot& slot) {
        zel::http::DownloadCallbacks callbacks;
        callbacks.on_head = [this, &slot](const DownloadHead& head) {
            return takesBody(slot, head);
        };
        callbacks.on_progress = [&slot](const zel::http::DownloadProgress& progress) {
            slot.amount = {progress.bytes, progress.total.value_or(0)};
        };
        callbacks.on_complete = [this, &slot](const zel::http::DownloadResult& result) {
            finishDownload(slot, result.bytes, result.facts);
        };
        callbacks.on_error = [this, &slot](const zel::http::DownloadError& error) {
            const bool answered = error.failure == DownloadFailure::Refused ||
                                  error.failure == DownloadFailure::Status ||
                                  error.failure == DownloadFailure::AuthenticationFailure;
            if (!answered) {
                slot.outcome.failure = nameOf(error.failure);
                slot.outcome.message = error.message;
                slot.outcome.exit_status = exitStatusOf(error.failure);
            }
            slot.outcome.status = error.status;
            finishDownload(slot, error.bytes, error.facts);
        };
        return callbacks;
    }

    /// A file is not replaced by the text of an error.
    bool takesBody(Slot& slot, const DownloadHead& head) const {
        Outcome& outcome = slot.outcome;
        outcome.status = head.status;
        outcome.fields = head.fields;
        slot.amount = {head.offset, head.total.value_or(0)};
        const bool fails = command_line_.fails_on_errors || slot.output->isReplaced();
        outcome.is_error_answer = fails && head.status >= first_error;
        if (slot.output->isReplaced() && !outcome.replacesFile()) return false;
        return !outcome.is_error_answer && !isRetried(command_line_.retry, slot.tries, head.status);
    }

    void finishDownload(Slot& slot, std::uint64_t bytes, const zel::http::TransferFacts& facts) {
        slot.download = {};
        slot.amount = {};
        slot.outcome.body_size = bytes;
        slot.outcome.is_written = bytes != 0 && !slot.output->isReplaced();
        if (slot.output->isReplaced()) slot.output.reset();
        slot.outcome.facts = facts;
        finish(slot);
    }

    void finish(Slot& slot) {
        const std::chrono::duration<double, std::milli> took = Clock::now() - slot.begun;
        slot.outcome.milliseconds = took.count();
        const auto delay = delayBeforeRetry(command_line_.retry, slot.tries, slot.outcome);
        if (delay) {
            retry(slot, *delay);
            return;
        }
        slot.output.reset();
        written_ += slot.outcome.body_size;
        progress_.clear();
        report_.add(slot.outcome);
        if (++finished_ == total_) {
            session_.stop();
        } else {
            startNext(slot);
        }
    }

    void retry(Slot& slot, std::chrono::milliseconds delay) {
        progress_.clear();
        report_.addRetry(slot.outcome, delay);
        slot.retry = std::make_unique<boost::asio::steady_timer>(session_.loop(), delay);
        slot.retry->async_wait([this, &slot](const boost::system::error_code& error) {
            if (!error) start(slot);
        });
    }

    void interrupt() {
        progress_.clear();
        const Amount reached = amount();
        for (Slot& slot : slots_) {
            if (slot.exchange != nullptr) slot.exchange->cancel();
            slot.download.cancel();
        }
        std::cerr << "zel-http: interrupted, " << finished_ << " of " << total_ << " done, "
                  << sizeText(reached.written) << " received\n";
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
            if (slot.output == nullptr) continue;
            amount.written += slot.amount.written;
            amount.total += slot.amount.total;
            known = known && slot.amount.total != 0;
        }
        if (!known) amount.total = 0;
        return amount;
    }

    const CommandLine& command_line_;
    EasySetup easy_setup_;  // outlives the engine
    Report report_;
    Progress progress_;
    const std::size_t total_;
    std::size_t started_ = 0;
    std::size_t finished_ = 0;
    /// Bytes of the downloads that have ended.
    std::uint64_t written_ = 0;
    Session session_;
    std::deque<Slot> slots_;
    boost::asio::steady_timer timer_;
};

}  // namespace

int fetch(const CommandLine& command_line) { return Fetch(command_line).run(); }

}  // namespace tool
