// The best that libcurl can do: its sockets in an epoll set of the program's, one thread.

#include <curl/curl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <optional>

#include "curl_transfer.h"
#include "load.h"

namespace {

using Clock = std::chrono::steady_clock;

class Loop {
public:
    explicit Loop(bench::Load& load) : load_(load), multi_(curl_multi_init()) {
        curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, onSocket);
        curl_multi_setopt(multi_, CURLMOPT_SOCKETDATA, this);
        curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, onTimer);
        curl_multi_setopt(multi_, CURLMOPT_TIMERDATA, this);
    }
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;
    ~Loop() {
        removeAll();
        curl_multi_cleanup(multi_);
        close(epoll_);
    }

    void start(std::size_t id, const std::string& url) {
        auto transfer = std::make_unique<bench::CurlTransfer>(load_, id, url);
        curl_multi_add_handle(multi_, transfer->easy);
        transfers_.emplace(transfer->easy, std::move(transfer));
    }

    void run() {
        std::array<epoll_event, 256> events{};
        while (!load_.over()) {
            const int ready = epoll_wait(epoll_, events.data(), events.size(), milliseconds());
            int running = 0;
            for (int i = 0; i < ready; ++i) {
                const epoll_event& event = events[static_cast<std::size_t>(i)];
                int mask = 0;
                if ((event.events & EPOLLIN) != 0) mask |= CURL_CSELECT_IN;
                if ((event.events & EPOLLOUT) != 0) mask |= CURL_CSELECT_OUT;
                if ((event.events & (EPOLLERR | EPOLLHUP)) != 0) mask |= CURL_CSELECT_ERR;
                curl_multi_socket_action(multi_, event.data.fd, mask, &running);
            }
            if (timer_ && *timer_ <= Clock::now()) {
                timer_.reset();
                curl_multi_socket_action(multi_, CURL_SOCKET_TIMEOUT, 0, &running);
            }
            finishAll();
        }
    }

    void removeAll() {
        for (const auto& [easy, transfer] : transfers_) curl_multi_remove_handle(multi_, easy);
        transfers_.clear();
    }

private:
    void finishAll() {
        bench::takeFinished(multi_, transfers_, [this](const auto& transfer, CURLcode result) {
            transfer->finish(load_, result);
        });
    }

    int milliseconds() const {
        if (!timer_) return 1000;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*timer_ - Clock::now());
        return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
    }

    static int onSocket(CURL* /*easy*/, curl_socket_t socket, int what, void* self, void* known) {
        auto& loop = *static_cast<Loop*>(self);
        if (what == CURL_POLL_REMOVE) {
            epoll_ctl(loop.epoll_, EPOLL_CTL_DEL, socket, nullptr);
            return 0;
        }
        epoll_event event{};
        event.data.fd = socket;
        if ((what & CURL_POLL_IN) != 0) event.events |= EPOLLIN;
        if ((what & CURL_POLL_OUT) != 0) event.events |= EPOLLOUT;
        epoll_ctl(loop.epoll_, known != nullptr ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, socket, &event);
        curl_multi_assign(loop.multi_, socket, self);
        return 0;
    }

    static int onTimer(CURLM* /*multi*/, long milliseconds, void* self) {
        auto& loop = *static_cast<Loop*>(self);
        if (milliseconds < 0) {
            loop.timer_.reset();
        } else {
            loop.timer_ = Clock::now() + std::chrono::milliseconds(milliseconds);
        }
        return 0;
    }

    bench::Load& load_;
    CURLM* multi_;
    int epoll_ = epoll_create1(0);
    std::optional<Clock::time_point> timer_;
    bench::CurlTransfers transfers_;
};

}  // namespace

int main(int argc, char** argv) {
    bench::Load load("raw-socket", argc, argv);
    curl_global_init(CURL_GLOBAL_ALL);
    Loop loop(load);
    load.begin([&](std::size_t id, const std::string& url) { loop.start(id, url); });
    loop.run();
    if (load.work().cancel) load.cancelled([&] { loop.removeAll(); });
    return load.report();
}
