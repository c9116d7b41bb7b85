// What the library takes of a small device: memory at rest ("idle") and for requests that wait
// ("http", "https"), and its thread's stack ("stack"). Each is asked for by name, so that one
// measurement leaves nothing to the next, and prints lines "what<TAB>how much".

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <future>
#include <iostream>

#include "bench/process_usage.h"
#include "loopback/descriptor_limit.h"
#include "loopback/event.h"
#include "loopback/recording_logger.h"
#include "loopback/server_process.h"
#include "loopback/tls_servers.h"
#include "oru/asio_executor.h"
#include "zel_http/client.h"
#include "zel_http/engine.h"
#include "zel_http/engine_hooks.h"

constexpr long waiting = 1000;

/// The transfers that there are. Engine thread only.
std::vector<void*> attached;

CURLMcode engine_curl_multi_add_handle(void* multi, void* easy) {
    attached.push_back(easy);
    return curl_multi_add_handle(multi, easy);
}

/// An engine and a client, as an application has them.
class Host {
public:
    explicit Host(const std::string& authorities) { config_.ca_file = authorities; }
    void start(const std::string& url) {
        config_.url = url;
        client_->start_request(
            config_, {}, [this](auto, const auto& response) { status_ = response.status; },
            [](auto, const auto& error) { throw std::runtime_error(error.message); });
    }
    void perform(const std::string& url) {
        start(url);
        while (status_ != 200) loop_.run_one();
    }
    template <typename Work>
    auto onEngine(const Work& work) {
        std::promise<decltype(work())> result;
        engine_.queueRequest([&] { result.set_value(work()); });
        return result.get_future().get();
    }

private:
    loopback::RecordingLogger logger_{9, 0};
    boost::asio::io_context loop_;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_{
        loop_.get_executor()};
    oru::asio_executor executor_{loop_};
    zel::http::Engine engine_{[](const auto& outcome) { outcome(); }, &logger_};
    std::shared_ptr<zel::http::Client> client_ = zel::http::createClient(executor_, logger_);
    zel::http::RequestConfig config_;
    std::uint32_t status_ = 0;
};

void show(const std::string& what, long kib) { std::cout << what << '\t' << kib << " KiB\n"; }

void measureIdle() {
    const long resident = bench::memoryKib("VmRSS");
    const long own = bench::memoryKib("RssAnon");
    const Host host("");
    show("resident before the engine", resident);
    show("resident with an idle engine", bench::memoryKib("VmRSS"));
    show("of it private before", own);
    show("of it private with an idle engine", bench::memoryKib("RssAnon"));
}

void measureWaiting(const std::string& origin, const std::string& authorities) {
    const loopback::DescriptorLimit enough(4 * waiting);
    const std::string scheme = origin.substr(0, origin.find(':'));
    Host host(authorities);
    host.onEngine([] { return 0; });
    const long idle = bench::memoryKib("RssAnon");
    host.perform(origin + "/hello");
    const long before = bench::memoryKib("RssAnon");
    show("private, the first " + scheme + " request", before - idle);
    host.onEngine([] { return attached.clear(), 0; });
    for (long i = 0; i < waiting; ++i) host.start(origin + "/silence");
    const auto sent = [](void* easy) {
        long bytes = 0;
        curl_easy_getinfo(easy, CURLINFO_REQUEST_SIZE, &bytes);
        return bytes > 0;
    };
    loopback::waitFor("all requests", [&] {
        return host.onEngine(
            [&] { return std::count_if(attached.begin(), attached.end(), sent) == waiting; });
    });
    show(fmt::format("private, each of {} {} requests that wait", waiting, scheme),
         (bench::memoryKib("RssAnon") - before) / waiting);
}

/// Paints the free part of the engine thread's stack, and looks later how much of it is left.
void measureStack(const std::string& origin, const std::string& authorities) {
    constexpr unsigned char paint = 0xA5;
    std::size_t size = 0;
    volatile unsigned char* lowest = nullptr;
    Host host(authorities);
    host.onEngine([&] {
        pthread_attr_t attributes;
        void* address = nullptr;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstack(&attributes, &address, &size);
        pthread_attr_destroy(&attributes);
        lowest = static_cast<unsigned char*>(address);
        constexpr std::size_t this_frame = 1024;
        const volatile void* free =
            static_cast<unsigned char*>(__builtin_frame_address(0)) - this_frame;
        for (auto* byte = lowest; byte < free; ++byte) *byte = paint;
        return 0;
    });
    host.perform(origin + "/hello");
    std::size_t unused = 0;
    while (unused < size && lowest[unused] == paint) ++unused;
    std::cout << fmt::format("stack, of {} KiB, through a TLS 1.3 handshake\t{:.1f} KiB\n",
                             size / 1024, static_cast<double>(size - unused) / 1024);
}

int main(int argc, char** argv) {
    const std::string what = argc > 1 ? argv[1] : "";
    alarm(120);
    const loopback::ServerProcess servers([](const loopback::ServerProcess::Ready& ready) {
        const loopback::Origin origin;
        const loopback::TlsServers tls;
        const std::string authorities = tls.certificates().file("bundle.pem");
        std::ofstream(authorities) << std::ifstream("/etc/ssl/certs/ca-certificates.crt").rdbuf()
                                   << std::ifstream(tls.certificates().file("root.pem")).rdbuf();
        ready({authorities, origin.url(""), tls.local().url("")});
    });
    const auto& at = servers.addresses();
    if (what == "idle") measureIdle();
    if (what == "http") measureWaiting(at[1], at[0]);
    if (what == "https") measureWaiting(at[2], at[0]);
    if (what == "stack") measureStack(at[2], at[0]);
}
