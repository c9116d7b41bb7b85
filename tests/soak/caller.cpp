#include "caller.h"

#include <iostream>

namespace test {
namespace {

constexpr std::size_t in_flight = 40;
constexpr unsigned longest_delay_ms = 25;

}  // namespace

/// A host's own request: digests the body as it comes, on the engine thread, and reports its
/// outcome on the caller's executor.
class Caller::Streamed : public zel::http::Request {
public:
    Streamed(Caller& caller, std::uint64_t key, const Work& work) : caller_(caller), key_(key) {
        config = work.config;
    }

    void notifyDataReceived(const char* data, unsigned length) override {
        digest_.add(data, length);
    }
    void notifyDataEnd() override {
        report(std::to_string(getResponseCode()) + " " + digest_.finish());
    }
    void notifyFailure(zel::http::Failure /*failure*/, const char* text) override { report(text); }
    void start() override {}

private:
    void report(const std::string& outcome) {
        caller_.executor_.post(
            [caller = &caller_, key = key_, outcome] { caller->finish(key, outcome); }, 0);
    }

    Caller& caller_;
    std::uint64_t key_;
    Digest digest_;
};

Caller::Caller(const Targets& targets, Ledger& ledger, logging::Logger& logger, unsigned seed)
    : targets_(targets),
      ledger_(ledger),
      random_(seed),
      guard_(loop_.get_executor()),
      executor_(loop_) {
    for (int i = 0; i < 2; ++i) clients_.push_back(zel::http::createClient(executor_, logger));
}

Caller::~Caller() = default;

void Caller::run(std::chrono::steady_clock::time_point until, Ending ending) {
    ending_ = ending;
    thread_ = std::thread([this, until] {
        fill();
        boost::asio::steady_timer timer(loop_, until);
        timer.async_wait([this](auto) { end(); });
        loop_.run();
    });
}

void Caller::fill() {
    while (running_ && open_ < in_flight) startOne();
}

void Caller::startOne() {
    const std::uint64_t key = next_key_++;
    const auto kind = random_() % 10;
    const bool endless = random_() % 20 == 0;
    const Work work = endless     ? endlessWait(targets_)
                      : kind == 0 ? download(targets_, random_)
                                  : anyWork(targets_, random_);
    Entry& entry = entries_[key];
    entry.url = work.config.url;
    entry.expected = work.expected;
    ++ledger_.started;
    ++open_;
    if (kind == 0) {
        startStreamed(key, entry, work);
    } else if (kind < 5) {
        startWithIdentifier(key, entry, work);
    } else {
        startWithHandle(key, entry, work);
    }
    // The outcome of a streamed request may have been handed over when it is cancelled.
    if (endless || (kind != 0 && random_() % 5 == 0)) cancelLater(key);
}

void Caller::startWithHandle(std::uint64_t key, Entry& entry, const Work& work) {
    const auto done = [this, key](const auto& outcome) { finish(key, outcomeOf(outcome)); };
    entry.handle = clients_[key % clients_.size()]->start_request(work.config, {}, done, done);
}

void Caller::startWithIdentifier(std::uint64_t key, Entry& entry, const Work& work) {
    const auto done = [this, key](auto, const auto& outcome) { finish(key, outcomeOf(outcome)); };
    entry.client = clients_[key % clients_.size()].get();
    entry.id = entry.client->start_request(work.config, {}, done, done);
}

void Caller::startStreamed(std::uint64_t key, Entry& entry, const Work& work) {
    entry.streamed = std::make_shared<Streamed>(*this, key, work);
    if (random_() % 4 == 0) entry.streamed->pauseRequest();
    entry.streamed->runRequest();
    pauseLater(key);
}

void Caller::pauseLater(std::uint64_t key) {
    later(key, [this, key](Entry& entry) {
        entry.streamed->pauseRequest();
        later(key, [](Entry& paused) { paused.streamed->resumeRequest(); });
    });
}

void Caller::cancelLater(std::uint64_t key) {
    later(key, [this](Entry& entry) { cancel(entry); });
}

void Caller::later(std::uint64_t key, std::function<void(Entry&)> work) {
    auto timer = std::make_shared<boost::asio::steady_timer>(
        loop_, std::chrono::milliseconds(random_() % longest_delay_ms));
    timer->async_wait([this, key, timer, work = std::move(work)](auto) {
        Entry& entry = entries_.at(key);
        if (!entry.delivered && !entry.cancelled) work(entry);
    });
}

void Caller::cancel(Entry& entry) {
    entry.cancelled = true;
    ++ledger_.cancelled;
    if (entry.streamed) {
        entry.streamed->tryToCancelRequest();
    } else if (entry.client != nullptr) {
        entry.client->cancel_request(entry.id);
    } else {
        entry.handle = {};
    }
    closed();
}

void Caller::finish(std::uint64_t key, const std::string& outcome) {
    Entry& entry = entries_.at(key);
    if (entry.cancelled) ++ledger_.delivered_after_cancel;
    if (entry.delivered) ++ledger_.delivered_twice;
    if (outcome != entry.expected && ++ledger_.other_than_expected <= 5) {
        std::cerr << "\n"
                  << entry.url << "\n  expected " << entry.expected << "\n  came     " << outcome
                  << '\n';
    }
    if (entry.cancelled || entry.delivered) return;
    entry.delivered = true;
    ++ledger_.delivered;
    entry.streamed.reset();
    closed();
}

void Caller::closed() {
    --open_;
    fill();
    if (!running_ && open_ == 0) loop_.stop();
}

void Caller::end() {
    running_ = false;
    for (auto& [key, entry] : entries_) {
        const bool endless = entry.expected.empty();
        if (entry.delivered || entry.cancelled) continue;
        if (endless || (ending_ == Ending::cancel_all && !entry.streamed)) cancel(entry);
    }
    if (open_ == 0 || ending_ == Ending::cancel_all) loop_.stop();
}

void Caller::settle() {
    // What reached the executor after its end: nothing of a cancelled request may come of it.
    loop_.restart();
    loop_.poll();
    ledger_.ended_with_engine += static_cast<long>(open_);
}

}  // namespace test
