// What the library takes of a small device: memory at rest and for requests that wait, and its
// thread's stack. Prints a line "what<TAB>how much" for each.

#include <curl/curl.h>
#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <future>
#include <iostream>

#include "loopback/tls_servers.h"
#include "oru/asio_executor.h"
#include "own_memory.h"
#include "support/null_logger.h"
#include "support/painted_stack.h"
#include "support/process.h"
#include "zel_http/client.h"
#include "zel_http/engine.h"
#include "zel_http/engine_hooks.h"

namespace test {
namespace {

constexpr long waiting = 1000;
constexpr unsigned patience_seconds = 120;
constexpr const char* bundle = "/etc/ssl/certs/ca-certificates.crt";

/// The transfers that there are. Engine thread only.
std::vector<void*> attached;

/// An engine and a client, as an application has them.
class Host {
public:
    explicit Host(std::string authorities) { config_.ca_file = std::move(authorities); }

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
    /// Until the engine has sent that many requests.
    void waitUntilSent(long count) {
        const auto sent = [](void* easy) {
            long bytes = 0;
            curl_easy_getinfo(easy, CURLINFO_REQUEST_SIZE, &bytes);
            return bytes > 0;
        };
        const auto all = [&] { return std::count_if(attached.begin(), attached.end(), sent); };
        while (onEngine(all) < count) loop_.run_one_for(std::chrono::milliseconds(10));
    }

private:
    NullLogger logger_;
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
    const OwnMemory before = OwnMemory::now();
    Host host("");
    host.onEngine([] { return 0; });
    const OwnMemory with = OwnMemory::now();
    show("resident before the engine", before.resident);
    show("resident with an idle engine", with.resident);
    show("of it private before", before.anonymous);
    show("of it private with an idle engine", with.anonymous);
}

void measureWaiting(const std::string& scheme, const std::string& origin,
                    const std::string& authorities) {
    const DescriptorLimit enough(std::min<rlim_t>(DescriptorLimit::highest, 4 * waiting));
    Host host(authorities);
    host.onEngine([] { return 0; });
    const OwnMemory idle = OwnMemory::now();
    host.perform(origin + "/hello");
    const OwnMemory before = OwnMemory::now();
    show("private, the first " + scheme + " request", before.anonymous - idle.anonymous);
    host.onEngine([] { return attached.clear(), 0; });
    for (long i = 0; i < waiting; ++i) host.start(origin + "/silence");
    host.waitUntilSent(waiting);
    show(fmt::format("private, each of {} {} requests that wait", waiting, scheme),
         (OwnMemory::now().anonymous - before.anonymous) / waiting);
}

void measureStack(const std::string& origin, const std::string& authorities) {
    Host host(authorities);
    test::PaintedStack stack;
    host.onEngine([&] { return stack.paint(), 0; });
    host.perform(origin + "/hello");
    std::cout << fmt::format(
        "stack, of {} KiB, through a TLS 1.3 handshake\t{:.1f} KiB\n", stack.size() / 1024,
        static_cast<double>(host.onEngine([&] { return stack.used(); })) / 1024);
}

/// So that one measurement leaves nothing to the next. False when it fails.
bool inAProcessOfItsOwn(const std::function<void()>& measure) {
    std::cout.flush();
    const pid_t child = fork();
    if (child == 0) {
        alarm(patience_seconds);
        measure();
        std::cout.flush();
        _exit(0);
    }
    int status = 1;
    return waitpid(child, &status, 0) == child && status == 0;
}

/// In a process of their own.
void serve(const ServerProcess::Ready& ready) {
    const loopback::Origin origin;
    const loopback::TlsServers tls;
    const std::string authorities = tls.certificates().file("bundle.pem");
    std::ofstream(authorities) << std::ifstream(bundle).rdbuf()
                               << std::ifstream(tls.certificates().file("root.pem")).rdbuf();
    ready({origin.url(""), tls.local().url(""), authorities});
}

}  // namespace
}  // namespace test

CURLMcode engine_curl_multi_add_handle(void* multi, void* easy) {
    test::attached.push_back(easy);
    return curl_multi_add_handle(multi, easy);
}

int main() {
    using namespace test;
    for (const char* name : {"http_proxy", "https_proxy", "all_proxy", "HTTPS_PROXY", "ALL_PROXY"})
        unsetenv(name);
    const ServerProcess servers(serve);
    const std::string http = servers.addresses().at(0);
    const std::string https = servers.addresses().at(1);
    const std::string authorities = servers.addresses().at(2);
    const bool measured =
        inAProcessOfItsOwn(measureIdle) &&
        inAProcessOfItsOwn([&] { measureWaiting("http", http, authorities); }) &&
        inAProcessOfItsOwn([&] { measureWaiting("https", https, authorities); }) &&
        inAProcessOfItsOwn([&] { measureStack(https, authorities); });
    return measured ? 0 : 1;
}
