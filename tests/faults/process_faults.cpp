// Descriptors that run out, that are too many for `select`, and that somebody else closes.

#include <fcntl.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <optional>
#include <thread>

#include "failing_calls.h"
#include "fault.h"
#include "loopback/scripted_server.h"
#include "support/process.h"

namespace test {
namespace {

using test::Exchange;

constexpr std::size_t crowd = 2000;

std::string outOfDescriptors(const std::string& origin) {
    Exchange host;
    std::string came;
    {
        const DescriptorLimit none(3);
        came = host.perform(origin + "/hello");
    }
    return andServes(host, origin, came);
}

/// Many requests at once; "some answered, the others refused, each once".
std::string atOnce(Exchange& host, const std::string& url) {
    std::atomic<bool> all_queued{false};  // so that the engine attaches all of them in one pass
    host.engine.queueRequest([&] { waitUntil([&] { return all_queued.load(); }); });
    std::size_t answered = 0;
    std::size_t refused = 0;
    std::size_t other = 0;
    std::vector<int> outcomes(crowd, 0);
    const auto total = [&] { return answered + refused + other; };
    for (std::size_t i = 0; i < crowd; ++i) {
        host.client->start_request(
            test::requestOf(url), host.filter,
            [&, i](auto, const auto& data) {
                ++(data.status == 200 ? answered : other);
                ++outcomes[i];
            },
            [&, i](auto, const auto& error) {
                const bool clear = test::textOf(error) ==
                                   "<Failed to establish connection> Couldn't connect to server";
                ++(clear ? refused : other);
                ++outcomes[i];
            });
    }
    all_queued = true;
    host.runUntil([&] { return total() >= crowd; });
    const bool once = std::count(outcomes.begin(), outcomes.end(), 1) == crowd;
    return fmt::format("{}, {}, {}{}", answered == crowd ? "all answered" : "some answered",
                       refused == 0 ? "none refused" : "the others refused",
                       other == 0 ? "" : "some otherwise, ", once ? "each once" : "not each once");
}

std::string belowSelectsLimit(const std::string& origin) {
    const DescriptorLimit usual(FD_SETSIZE);
    Exchange host;
    return andServes(host, origin, atOnce(host, origin + "/hello"));
}

/// Takes all descriptors below `FD_SETSIZE` while it lives.
class Occupied {
public:
    Occupied() {
        while (descriptors_.empty() || descriptors_.back() < FD_SETSIZE) {
            descriptors_.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
        }
    }
    Occupied(const Occupied&) = delete;
    Occupied& operator=(const Occupied&) = delete;
    ~Occupied() {
        for (const int descriptor : descriptors_) close(descriptor);
    }

private:
    std::vector<int> descriptors_;
};

/// All in flight together, which the origin makes sure of, on descriptors beyond any `fd_set`: also
/// the engine's own, or all but those.
std::string aboveSelectsLimit(const std::string& origin, bool engine_too) {
    const DescriptorLimit many(
        std::min<rlim_t>(DescriptorLimit::highest(), rlim_t{2} * FD_SETSIZE + crowd));
    std::optional<Occupied> occupied;
    if (engine_too) occupied.emplace();
    Exchange host;
    if (!engine_too) occupied.emplace();
    return andServes(host, origin, atOnce(host, fmt::format("{}/together/{}", origin, crowd)));
}

std::string lostWakeup(const std::string& origin) {
    Exchange host;
    std::shared_ptr<test::ProbeRequest> request;
    failing_wakeups = 1;
    while (failing_wakeups > 0) {  // an engine that is not waiting needs no wake-up
        request = test::probe(origin + "/hello");
        request->runRequest();
        waitUntil([&] { return failing_wakeups == 0 || request->outcomes > 0; });
    }
    const std::string next = host.perform(origin + "/hello");  // wakes the engine for both
    return andServes(host, origin, request->outcome() + ", " + next);
}

/// The lowest descriptor from `first` on that is `wanted`.
int findDescriptor(int first, const std::function<bool(int)>& wanted) {
    for (int descriptor = first; descriptor < first + 200; ++descriptor) {
        if (wanted(descriptor)) return descriptor;
    }
    throw std::runtime_error("no such descriptor");
}

int descriptorOfPeer(int first, const std::string& authority) {
    const int port = std::stoi(authority.substr(authority.find(':') + 1));
    return findDescriptor(first, [&](int descriptor) {
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        return getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &length) == 0 &&
               ntohs(peer.sin_port) == port;
    });
}

int wakeupDescriptor(int first) {
    return findDescriptor(first, [](int descriptor) {
        std::array<char, 50> target{};
        const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
        const bool read = readlink(link.c_str(), target.data(), target.size() - 1) > 0;
        return read && std::string(target.data()) == "anon_inode:[eventfd]";
    });
}

/// "little CPU" when this process takes less than half of the time until `work` is done.
std::string cpuDuring(const std::function<void()>& work) {
    const auto begun = std::chrono::steady_clock::now();
    const double before = cpuSeconds();
    work();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begun;
    const double used = cpuSeconds() - before;
    return used < 0.02 + took.count() / 2 ? "little CPU" : fmt::format("{} s of CPU", used);
}

/// Closes it between two waits of the engine: nothing wakes a wait that is under way.
void closeBehind(zel::http::Engine& engine, const std::function<int()>& descriptor) {
    std::promise<void> queued;  // with the wake-up written
    std::promise<void> closed;
    engine.queueRequest([&] {
        queued.get_future().wait();
        close(descriptor());
        closed.set_value();
    });
    queued.set_value();
    closed.get_future().wait();
}

/// Has all descriptors of an engine beyond any `fd_set`, so that it waits with `poll`.
class HighDescriptors {
    DescriptorLimit many_{std::min<rlim_t>(DescriptorLimit::highest(), rlim_t{2} * FD_SETSIZE)};
    Occupied occupied_;
};

/// Somebody closes the socket of a transfer that waits.
std::string closedSocket(const std::string& origin, bool high) {
    std::optional<HighDescriptors> chosen;
    if (high) chosen.emplace();
    std::atomic<bool> arrived{false};
    const loopback::ScriptedServer server([&](loopback::Socket& socket) {
        loopback::readRequest(socket);
        arrived = true;
        loopback::waitForClose(socket);
    });
    Exchange host;
    const auto request = test::probe("--timeout 1 " + server.url());
    request->runRequest();
    waitUntil([&] { return arrived.load(); });
    const std::string cpu = cpuDuring([&] {
        closeBehind(host.engine,
                    [&] { return descriptorOfPeer(high ? FD_SETSIZE : 3, server.authority()); });
        request->outcome();
    });
    return andServes(host, origin, request->outcome() + ", " + cpu);
}

/// Somebody closes what wakes the engine: an engine without work must not spin, and must end.
std::string closedWakeup(bool high) {
    std::optional<HighDescriptors> chosen;
    if (high) chosen.emplace();
    const int first = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(first);
    loopback::RecordingLogger logger;
    zel::http::Engine engine([](const auto& closure) { closure(); }, &logger);
    closeBehind(engine, [=] { return wakeupDescriptor(first); });
    return cpuDuring([] { usleep(300'000); });
}

}  // namespace

Faults processFaults(const std::string& origin) {
    const std::string closed = "0 <Protocol failure> Failed sending data to the peer, little CPU";
    const std::string all = "all answered, none refused, each once";
    return {
        {"no descriptor left, then some again",
         "<Failed to establish connection> Couldn't connect to server",
         [=] { return outOfDescriptors(origin); }},
        {"2000 at once, descriptors limited to 1024 (select)",
         "some answered, the others refused, each once", [=] { return belowSelectsLimit(origin); }},
        {"2000 in flight, all descriptors from 1024 on (poll)", all,
         [=] { return aboveSelectsLimit(origin, true); }},
        {"2000 in flight, all but the engine's own so (poll)", all,
         [=] { return aboveSelectsLimit(origin, false); }},
        {"wake-up fails, the next one does not", "200 end, 200 hello",
         [=] { return lostWakeup(origin); }},
        {"socket closed by somebody else (select)", closed,
         [=] { return closedSocket(origin, false); }},
        {"socket closed by somebody else (poll)", closed,
         [=] { return closedSocket(origin, true); }},
        {"wake-up descriptor closed by somebody else (select)", "little CPU",
         [=] { return closedWakeup(false); }},
        {"wake-up descriptor closed by somebody else (poll)", "little CPU",
         [=] { return closedWakeup(true); }},
    };
}

}  // namespace test
