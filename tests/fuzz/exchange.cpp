#include "exchange.h"

#include <dlfcn.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "Engine/easy_options.h"

namespace test {

/// Gives libcurl one end of a pair for each connection, and the other end its answer.
class PairedExchange::PairedEngine : public zel::http::Engine {
public:
    using Engine::Engine;
    PairedEngine(const PairedEngine&) = delete;
    PairedEngine& operator=(const PairedEngine&) = delete;
    ~PairedEngine() override { stop(); }

    void addTlsConfig(void* curl, std::shared_ptr<zel::http::Request> request) override {
        Engine::addTlsConfig(curl, request);
        // No look-ups, and no connection that an earlier input has left behind.
        static curl_slist* here = curl_slist_append(nullptr, "::127.0.0.1:");
        curl_easy_setopt(curl, CURLOPT_CONNECT_TO, here);
        curl_easy_setopt(curl, CURLOPT_FORBID_REUSE, 1L);
        curl_easy_setopt(curl, CURLOPT_OPENSOCKETFUNCTION, open);
        curl_easy_setopt(curl, CURLOPT_OPENSOCKETDATA, this);
    }

    // Before and after an exchange on the caller's thread, meanwhile on the engine's.
    std::deque<std::string> answers;
    std::vector<int> far_ends;

private:
    static curl_socket_t open(void* self, curlsocktype /*purpose*/, curl_sockaddr* /*address*/) {
        auto& engine = *static_cast<PairedEngine*>(self);
        std::array<int, 2> ends{};
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
            return CURL_SOCKET_BAD;
        if (!engine.answers.empty()) {
            const std::string& answer = engine.answers.front();
            static_cast<void>(send(ends[1], answer.data(), answer.size(), MSG_DONTWAIT));
            engine.answers.pop_front();
        }
        shutdown(ends[1], SHUT_WR);
        engine.far_ends.push_back(ends[1]);
        return ends[0];
    }
};

PairedExchange::PairedExchange()
    : engine_(std::make_unique<PairedEngine>([](const auto& closure) { closure(); }, &logger_)),
      client_(zel::http::createClient(executor_, logger_)) {}

int PairedExchange::perform(const zel::http::RequestConfig& config,
                            std::deque<std::string> answers) {
    int outcomes = 0;
    response = {};
    sent.clear();
    engine_->answers = std::move(answers);
    client_->start_request(
        config, {},
        [&](auto, const auto& data) {
            response = data;
            ++outcomes;
        },
        [&](auto, const auto&) { ++outcomes; });
    while (outcomes == 0) loop_.run_one();
    loop_.poll();
    for (const int end : engine_->far_ends) {
        std::string bytes;
        std::array<char, 4096> block{};
        for (ssize_t got = 0; (got = recv(end, block.data(), block.size(), MSG_DONTWAIT)) > 0;) {
            bytes.append(block.data(), static_cast<std::size_t>(got));
        }
        sent.push_back(bytes);
        close(end);
    }
    engine_->far_ends.clear();
    return outcomes;
}

}  // namespace test

/// libcurl connects what it is given, and libcurl 7.88 also when it is told not to.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" __attribute__((visibility("default"))) int connect(int socket, const sockaddr* address,
                                                              socklen_t length) {
    static const auto next = reinterpret_cast<decltype(&connect)>(dlsym(RTLD_NEXT, "connect"));
    sockaddr own{};
    socklen_t size = sizeof own;
    getsockname(socket, &own, &size);
    return own.sa_family == AF_UNIX ? 0 : next(socket, address, length);
}
