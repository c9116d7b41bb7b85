// What two threads cost by themselves: bare libcurl on one, the callbacks on another, a queue each
// way, and nothing else that the library does. Built twice: raw-threads wakes the callbacks' thread
// for each outcome, raw-batched once for all outcomes of a pass.

#include <curl/curl.h>
#include <sys/eventfd.h>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "curl_transfer.h"
#include "load.h"

namespace {

using Transfer = std::unique_ptr<bench::CurlTransfer>;
using Outcome = std::pair<Transfer, CURLcode>;

#ifdef BENCH_BATCHED
constexpr bool batched = true;
#else
constexpr bool batched = false;
#endif

struct Request {
    std::size_t id;
    std::string url;
};

/// The main thread's queue of outcomes.
class Outcomes {
public:
    void post(std::vector<Outcome> outcomes) {
        {
            const std::lock_guard lock(mutex_);
            for (Outcome& outcome : outcomes) queue_.push_back(std::move(outcome));
        }
        posted_.notify_one();
    }
    Outcome take() {
        std::unique_lock lock(mutex_);
        posted_.wait(lock, [this] { return !queue_.empty(); });
        auto outcome = std::move(queue_.front());
        queue_.pop_front();
        return outcome;
    }

private:
    std::mutex mutex_;
    std::condition_variable posted_;
    std::deque<Outcome> queue_;
};

class Engine {
public:
    Engine(const bench::Load& load, Outcomes& outcomes) : load_(load), outcomes_(outcomes) {}

    /// Any thread.
    void start(Request request) {
        bool waiting = false;
        {
            const std::lock_guard lock(mutex_);
            queue_.push_back(std::move(request));
            waiting = std::exchange(waiting_, false);
        }
        if (waiting) eventfd_write(wakeup_, 1);
    }

    [[noreturn]] void run() {
        while (true) {
            startQueued();
            wait();
            int running = 0;
            curl_multi_perform(multi_, &running);
            postFinished();
        }
    }

private:
    void startQueued() {
        std::deque<Request> batch;
        {
            const std::lock_guard lock(mutex_);
            waiting_ = true;
            batch.swap(queue_);
        }
        for (const Request& request : batch) {
            auto transfer = std::make_unique<bench::CurlTransfer>(load_, request.id, request.url);
            curl_multi_add_handle(multi_, transfer->easy);
            transfers_.emplace(transfer->easy, std::move(transfer));
        }
    }

    void wait() {
        long timeout = -1;
        curl_multi_timeout(multi_, &timeout);
        if (timeout == 0) return;
        curl_waitfd wakeup{wakeup_, CURL_WAIT_POLLIN, 0};
        curl_multi_poll(multi_, &wakeup, 1, timeout < 0 ? 1000 : static_cast<int>(timeout),
                        nullptr);
        {
            const std::lock_guard lock(mutex_);
            waiting_ = false;
        }
        eventfd_t value = 0;
        if (wakeup.revents != 0) eventfd_read(wakeup_, &value);
    }

    void postFinished() {
        std::vector<Outcome> outcomes;
        bench::takeFinished(multi_, transfers_, [&](Transfer transfer, CURLcode result) {
            outcomes.emplace_back(std::move(transfer), result);
            if (!batched) outcomes_.post(std::exchange(outcomes, {}));
        });
        if (!outcomes.empty()) outcomes_.post(std::move(outcomes));
    }

    const bench::Load& load_;
    Outcomes& outcomes_;
    std::mutex mutex_;
    std::deque<Request> queue_;
    bool waiting_ = false;
    int wakeup_ = eventfd(0, 0);
    CURLM* multi_ = curl_multi_init();
    bench::CurlTransfers transfers_;
};

}  // namespace

int main(int argc, char** argv) {
    bench::Load load(batched ? "raw-batched" : "raw-threads", argc, argv);
    curl_global_init(CURL_GLOBAL_ALL);
    Outcomes outcomes;
    Engine engine(load, outcomes);
    std::thread([&] { engine.run(); }).detach();
    load.begin([&](std::size_t id, const std::string& url) { engine.start({id, url}); });
    while (!load.over()) {
        const auto [transfer, result] = outcomes.take();
        transfer->finish(load, result);
    }
    std::_Exit(load.report());
}
