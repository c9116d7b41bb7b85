// The command-line tool as its user sees it: output and exit status.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <thread>

#include "origin.h"
#include "scripted_server.h"
#include "support/exchange.h"

namespace test {
namespace {

using namespace tool;  // the servers

/// The tool in a shell, standard error included; the shell's first line is the process identifier.
class Tool {
public:
    explicit Tool(const std::string& arguments)
        : pipe_(popen(("echo $$; exec " ZEL_HTTP_TOOL_PATH " " + arguments + " 2>&1").c_str(), "r")) {
        pid_ = std::stoi(readLine());
    }
    void interrupt() const { kill(pid_, SIGINT); }
    /// The rest of the output and then "exit N".
    std::string finish() {
        std::string output;
        for (std::string line = readLine(); !line.empty(); line = readLine()) output += line;
        return output + "exit " + std::to_string(WEXITSTATUS(pclose(pipe_)));
    }

private:
    std::string readLine() {
        std::array<char, 4096> line{};
        return std::fgets(line.data(), line.size(), pipe_) == nullptr ? "" : line.data();
    }

    FILE* pipe_;
    int pid_ = 0;
};

TEST(Tool, OutcomesAndExitStatus) {
    const tool::Origin origin;
    const std::string hello = " " + origin.url("/hello");
    const std::string echo = " " + origin.url("/echo");
    struct Row {
        std::string arguments;
        std::string shown;
        int status;
    };
    const std::vector<Row> rows = {
        {hello + hello, "hello\n", 0},
        {"-i" + hello, "Content-Length: 6\n", 0},
        {"-i -d a=b" + echo, "X-Method: POST\n", 0},
        {"-d @/etc/passwd -X PUT" + echo, "root:", 0},
        {"-o /dev/stdout" + hello, "hello\n", 0},
        {hello + " " + origin.url("/status/404"), "404 ", 1},
        {"''", "<Invalid URL>", 1},
        {"-v 1" + hello, "HTTP(1) => GET" + hello, 0},
        {"--help", "Exit status:", 0},
        {"-X BREW" + hello, "zel-http: --request: BREW", 2},
        {"-X GET -d x" + hello, "zel-http: -d: a body goes with", 2},
        {"-d @/no/such/file" + hello, "zel-http: -d: cannot open /no/such/file", 2},
        {"-H nonsense" + hello, "zel-http: -H: 'nonsense' is not", 2},
        {"-H 'A: b\r\nC: d'" + hello, "zel-http: -H: a header is one line", 2},
        {"-u :password" + hello, "zel-http: -u: the user name is empty", 2},
        {"--timeout -1" + hello, "zel-http: --timeout:", 2},
        {"--max-size 99999999999" + hello, "zel-http: ", 2},
        {"-o /tmp/x" + hello + hello, "zel-http: -o: takes the body of one URL", 2},
        {"-o /no/such/file" + hello, "zel-http: -o: cannot write /no/such/file", 2},
        {"--brew", "zel-http: ", 2},
        {"", "22 of 22 scenarios as expected", 0},
    };
    for (const Row& row : rows) {
        const std::string output = Tool(row.arguments).finish();
        EXPECT_NE(output.find(row.shown), std::string::npos) << row.arguments << ":\n" << output;
        EXPECT_NE(output.find("exit " + std::to_string(row.status)), std::string::npos) << row.arguments << ":\n"
                                                                                        << output;
    }
}

TEST(Tool, InterruptCancelsAndEndsCleanly) {
    std::atomic<bool> arrived{false};
    ScriptedServer silent([&](Socket& socket) {
        arrived = true;
        waitForClose(socket);
    });
    Tool running(silent.url());
    while (!arrived) std::this_thread::yield();
    running.interrupt();
    EXPECT_EQ(running.finish(), "zel-http: interrupted, 1 cancelled\nexit 130");
}

}  // namespace
}  // namespace test
