#include "fault.h"

#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <thread>

#include "support/servers.h"

namespace test {
namespace {

using Clock = std::chrono::steady_clock;

Destructions so_far;

int shell(const std::string& command) { return std::system(command.c_str()); }

}  // namespace

RealServers::RealServers() {
    if (shell(ZEL_HTTP_TEST_SERVERS_SCRIPTS "/start " ZEL_HTTP_TEST_SERVERS) != 0) {
        throw std::runtime_error("nginx, squid and Apache do not start");
    }
}

RealServers::~RealServers() { shell(ZEL_HTTP_TEST_SERVERS_SCRIPTS "/stop " ZEL_HTTP_TEST_SERVERS); }

void RealServers::killServer(const std::string& pid_file) const {
    const std::string pid = "$(cat " + test::serverFile(pid_file) + ")";
    // Stopped first, so that it does not replace the workers.
    shell("kill -STOP " + pid + "; pkill -KILL -P " + pid + "; kill -KILL " + pid);
}

std::string andServes(test::Exchange& host, const std::string& origin, const std::string& came) {
    const auto begun = Clock::now();
    const std::string next = host.perform(origin + "/hello");
    if (next != "200 hello") return came + "; but then: " + next;
    // A wait that misses its event lasts up to 30 s.
    return Clock::now() - begun < std::chrono::seconds(15) ? came : came + "; but then: a stall";
}

std::string tally(const std::vector<std::shared_ptr<test::ProbeRequest>>& requests) {
    const auto came = std::count_if(requests.begin(), requests.end(),
                                    [](const auto& request) { return request->outcomes > 0; });
    const bool once = std::all_of(requests.begin(), requests.end(),
                                  [](const auto& request) { return request->outcomes <= 1; });
    return fmt::format("{} of {}, {}", came, requests.size(), once ? "each once" : "some twice");
}

void waitUntil(const std::function<bool()>& reached) {
    const auto deadline = Clock::now() + test::patience;
    while (!reached()) {
        if (Clock::now() > deadline) throw std::runtime_error("waited in vain");
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
}

ChildsEnd inChild(const std::function<void()>& work) {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) throw std::runtime_error("no pipe");
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDERR_FILENO);
        work();
        _exit(0);
    }
    close(ends[1]);
    ChildsEnd end{};
    std::array<char, 4096> block{};
    for (ssize_t got = 0; (got = read(ends[0], block.data(), block.size())) > 0;) {
        end.words.append(block.data(), static_cast<std::size_t>(got));
    }
    close(ends[0]);
    waitpid(child, &end.status, 0);
    return end;
}

double destroy(std::unique_ptr<test::Exchange>& host) {
    const auto begun = Clock::now();
    host.reset();
    const std::chrono::duration<double, std::milli> took = Clock::now() - begun;
    ++so_far.count;
    so_far.longest_ms = std::max(so_far.longest_ms, took.count());
    return took.count();
}

const Destructions& destructions() { return so_far; }

}  // namespace test
