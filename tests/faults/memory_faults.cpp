// Every single allocation that a request costs the engine thread fails once, each in a process of
// its own, and what came of it is judged and counted.

#include <fmt/format.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <iostream>
#include <sstream>
#include <thread>

#include "failing_calls.h"
#include "fault.h"
#include "loopback/scripted_server.h"
#include "loopback/tls_servers.h"
#include "support/server_process.h"

namespace test {
namespace {

using test::Exchange;

/// What became of a request. `lasting`: an error, and the next request fails too. `wrong`: a
/// success, but not what was asked for. `none`: no outcome. `whole`: no allocation was left to
/// fail.
enum Ending : std::size_t { exact, error, named_end, lasting, wrong, none, crash, whole };
constexpr std::array<const char*, whole> titles = {"exact", "error", "named end", "lasting",
                                                   "wrong", "none",  "crash"};

constexpr unsigned patience_seconds = 10;

/// A handshake makes thousands of allocations, nearly all inside OpenSSL. All up to here fail,
/// which is more than a plain request makes, and then one of so many; an emulator takes its time.
#ifdef __arm__
constexpr long each_up_to = 20;
constexpr long one_of = 499;
#else
constexpr long each_up_to = 180;
constexpr long one_of = 211;
#endif

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif

struct Scenario {
    std::string name;
    /// What stands in the outcome that no fault has touched.
    std::string mark;
    std::string line;
    std::string proxy;
};

/// All that a caller learns.
std::string textOf(const zel::http::ResponseData& data) {
    std::ostringstream text;
    text << data.status << '\n';
    for (const auto& [name, value] : data.headers) text << name << ": " << value << '\n';
    text << data.body;
    return text.str();
}
std::string textOf(const zel::http::ErrorData& data) { return "error: " + test::textOf(data); }

/// The outcome of the scenario on an engine thread whose `nth` allocation fails.
std::string outcome(Exchange& host, const Scenario& scenario, long nth) {
    std::atomic<bool> holds{false};
    std::atomic<bool> queued{false};
    host.engine.queueRequest([&] {  // so that the same allocations count each time
        holds = true;
        waitUntil([&] { return queued.load(); });
        failAllocation(nth);
    });
    waitUntil([&] { return holds.load(); });
    std::string came;
    const auto note = [&](auto, const auto& data) { came = textOf(data); };
    host.client->start_request(test::requestOf(scenario.line), host.filter, note, note);
    queued = true;
    host.runUntil([&] { return !came.empty(); });
    host.settle();  // what follows an outcome counts too
    return came;
}

/// What came with the fault, and then without one on the same engine.
struct Outcomes {
    std::string first;
    bool failed = false;
    std::string next;
};

Outcomes perform(const Scenario& scenario, long nth) {
    // A logger that made lines would have allocations of its own.
    Exchange host([](const auto& closure) { closure(); }, -1);
    host.engine.setProxyConfig(scenario.proxy, "device", "secret");
    Outcomes came;
    came.first = outcome(host, scenario, nth);
    came.failed = allocationFailed();
    came.next = outcome(host, scenario, 0);
    return came;
}

Ending judge(const Outcomes& came, const std::string& right) {
    if (!came.failed) return came.first == right ? whole : wrong;
    const auto failed = [&](const std::string& text) {
        return text != right && text.rfind("error: ", 0) == 0;
    };
    if (failed(came.next)) return lasting;
    if (came.next != right) return wrong;
    if (failed(came.first)) return error;
    return came.first == right ? exact : wrong;
}

/// Ends the process with an `Ending`.
[[noreturn]] void lose(const Scenario& scenario, long nth, const std::string& right) {
    static_cast<void>(std::signal(SIGALRM, SIG_DFL));
    alarm(patience_seconds);
    mallopt(M_PERTURB, 0xa5);  // what is used before it is written, or once it is freed, shows
    std::array<int, 2> input{};
    const std::string text(10000, 'i');  // where a body is taken from standard input
    if (pipe(input.data()) != 0 || write(input[1], text.data(), text.size()) < 0) _exit(crash);
    dup2(input[0], STDIN_FILENO);
    close(input[1]);
    const Outcomes came = perform(scenario, nth);
    std::cerr << "came: " << came.first << "\nthen: " << came.next << '\n';
    _exit(static_cast<int>(judge(came, right)));
}

Ending endingOf(const ChildsEnd& end) {
    const auto said = [&](const char* text) { return end.words.find(text) != std::string::npos; };
    if (WIFEXITED(end.status)) return static_cast<Ending>(WEXITSTATUS(end.status));
    if (WTERMSIG(end.status) == SIGALRM) return none;
    const bool named = said("Thread 'CurlEngine' ended by an exception: std::bad_alloc") ||
                       said("CurlEngine: the multi handle refuses a transfer");
    return WTERMSIG(end.status) == SIGABRT && named ? named_end : crash;
}

/// Prints the scenario's line of the table, behind what was not allowed; returns how much of that.
int torture(const Scenario& scenario) {
    const std::string right = perform(scenario, 0).first;
    if (right.find(scenario.mark) == std::string::npos) throw std::runtime_error(right);
    std::array<int, whole> count{};
    long nth = 1;
    for (;; nth += nth < each_up_to ? 1 : one_of) {
        const ChildsEnd end = inChild([&] { lose(scenario, nth, right); });
        const Ending ending = endingOf(end);
        if (ending == whole) break;
        ++count.at(ending);
        if (ending < lasting) continue;
        std::cout << fmt::format("{}, allocation {}: {}\n{}", scenario.name, nth, titles[ending],
                                 end.words)
                  << std::flush;
    }
    std::cout << fmt::format("  {:<20}{:>11}", scenario.name, nth - 1);
    for (const int endings : count) std::cout << fmt::format("{:>10}", endings);
    std::cout << std::endl;
    return count[lasting] + count[wrong] + count[none] + count[crash];
}

/// Serves one request a connection, as the origin or as a proxy and the origin behind it, with all
/// that came.
void mirror(loopback::Socket& socket) {
    std::string came = loopback::readRequest(socket);
    if (came.rfind("CONNECT", 0) == 0) {
        loopback::write(socket, "HTTP/1.1 200 OK\r\n\r\n");
        came += loopback::readRequest(socket);
    }
    loopback::write(socket, fmt::format("HTTP/1.1 200 OK\r\nConnection: close\r\n"
                                        "Content-Length: {}\r\n\r\n{}",
                                        came.size(), came));
}

std::vector<Scenario> scenarios(const std::vector<std::string>& at) {
    const std::string fields = "-H X-Own:value -H User-Agent:own ";
    const std::string body = "-d " + std::string(5000, 'b') + ' ' + fields;
    const std::string verified = fields + "--ca-file " + at[4] + "root.pem ";
    const std::string own = "--cert " + at[4] + "client.pem --key " + at[4] + "client.key ";
    const std::string port = at[5].substr(at[5].find(':'));
    // Without a query: libcurl sends a request for which it could not copy its query without one.
    const std::string target = "/mirror";
    return {
        {"GET", "GET " + target, fields + at[0] + target, ""},
        {"POST", "POST " + target, "-X POST " + body + at[0] + target, ""},
        {"PUT", "PUT " + target, "-X PUT " + body + at[0] + target, ""},
        {"PATCH", "PATCH " + target, "-X PATCH " + body + at[0] + target, ""},
        {"DELETE", "DELETE " + target, "-X DELETE " + fields + at[0] + target, ""},
        {"redirect", "GET " + target, fields + at[0] + "/redirect/mirror", ""},
        {"credentials", "welcome", fields + "-u device:secret:word " + at[0] + "/private", ""},
        // Also served where no proxy is asked, and none of the hosts that bypass one.
        {"proxy", "CONNECT 0.0.0.0", fields + "http://0.0.0.0" + port + target, "http://" + at[5]},
        {"HTTPS", "GET " + target, verified + at[1] + target, ""},
        {"client certificate", "GET " + target, own + verified + at[3] + target, ""},
        {"another's name", "error: <Protocol", verified + at[2] + target, ""},
    };
}

std::string everyAllocation() {
    const ServerProcess servers([](const ServerProcess::Ready& ready) {
        const loopback::TlsServers tls;
        const loopback::Origin origin;
        // Side by side: a transfer that failed may leave its connection open.
        const loopback::ScriptedServer proxy([](loopback::Socket& accepted) {
            std::thread([socket = std::move(accepted)]() mutable { mirror(socket); }).detach();
        });
        ready({origin.url(""), tls.local().url(""), tls.elsewhere().url(""), tls.mutual().url(""),
               tls.certificates().file(""), proxy.authority()});
    });
    std::cout << fmt::format("{:>33}", "allocations");
    for (const char* title : titles) std::cout << fmt::format("{:>10}", title);
    std::cout << std::endl;
    int faults = 0;
    for (const Scenario& scenario : scenarios(servers.addresses())) faults += torture(scenario);
    return fmt::format("{} lasting, wrong, without an outcome or crashed", faults);
}

}  // namespace

Faults memoryFaults() {
    if (sanitized) return {};  // a sanitizer allocates by itself
    return {{"each allocation of a request fails, one at a time",
             "0 lasting, wrong, without an outcome or crashed", everyAllocation}};
}

}  // namespace test
