// What the library takes of a small device: memory at rest and for a first request or, with an
// argument, the stack of its thread. Prints lines "what<TAB>how much".

#include <fmt/format.h>

#include <fstream>
#include <iostream>
#include <optional>

#include "bench/process_usage.h"
#include "loopback/event.h"
#include "loopback/recording_logger.h"
#include "loopback/server_process.h"
#include "loopback/tls_servers.h"
#include "oru/asio_executor.h"
#include "zel_http/client.h"
#include "zel_http/engine.h"

/// Prints the resident memory, and the part of it that this process alone has.
void showMemory(const std::string& when) {
    std::cout << fmt::format("resident {}\t{} KiB\n", when, bench::memoryKib("VmRSS"))
              << fmt::format("of it private\t{} KiB\n", bench::memoryKib("RssAnon"));
}

/// The free part of the calling thread's stack, painted, so that it can be seen later how much of
/// it is left.
class PaintedStack {
public:
    PaintedStack() {
        pthread_attr_t attributes;
        void* address = nullptr;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstack(&attributes, &address, &size_);
        pthread_attr_destroy(&attributes);
        lowest_ = static_cast<unsigned char*>(address);
        constexpr std::size_t this_frame = 1024;
        const volatile void* free =
            static_cast<unsigned char*>(__builtin_frame_address(0)) - this_frame;
        for (auto* byte = lowest_; byte < free; ++byte) *byte = paint;
    }
    void show(const std::string& when) const {
        std::size_t unused = 0;
        while (unused < size_ && lowest_[unused] == paint) ++unused;
        std::cout << fmt::format("stack, of {} KiB, {}\t{:.1f} KiB\n", size_ / 1024, when,
                                 static_cast<double>(size_ - unused) / 1024);
    }

private:
    static constexpr unsigned char paint = 0xA5;
    volatile unsigned char* lowest_ = nullptr;
    std::size_t size_ = 0;
};

int main(int argc, char** /*argv*/) {
    const bool measures_stack = argc > 1;
    const loopback::ServerProcess servers([](const loopback::ServerProcess::Ready& ready) {
        const loopback::TlsServers tls;
        // The system's bundle of authorities, and behind it the server's.
        const std::string authorities = tls.certificates().file("bundle.pem");
        std::ofstream(authorities) << std::ifstream("/etc/ssl/certs/ca-certificates.crt").rdbuf()
                                   << std::ifstream(tls.certificates().file("root.pem")).rdbuf();
        ready({authorities, tls.local().url("/hello")});
    });
    if (!measures_stack) showMemory("before the engine");
    loopback::RecordingLogger logger(9, 0);
    boost::asio::io_context loop;
    oru::asio_executor executor(loop);
    zel::http::Engine engine([](const auto& outcome) { outcome(); }, &logger);
    const auto client = zel::http::createClient(executor, logger);
    std::optional<PaintedStack> stack;
    loopback::Flag runs;
    engine.queueRequest([&] {
        if (measures_stack) stack.emplace();
        runs.set();
    });
    runs.await("the engine thread");
    if (!measures_stack) showMemory("with an idle engine");

    zel::http::RequestConfig config;
    config.ca_file = servers.addresses()[0];
    config.url = servers.addresses()[1];
    std::string outcome;
    const auto keep = [&](auto, const auto& response) { outcome = response.body; };
    client->start_request(config, {}, keep,
                          [&](auto, const auto& error) { outcome = error.message; });
    loopback::waitFor("the outcome", [&] {
        loop.poll();
        loop.restart();
        return !outcome.empty();
    });
    if (stack) {
        stack->show("through a TLS 1.3 handshake");
    } else {
        showMemory("after the first https request");
    }
    return outcome == "hello\n" ? 0 : 1;
}
