// The command-line tool as its user sees it: output and exit status.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <thread>

#include "loopback/origin.h"
#include "loopback/scripted_server.h"
#include "support/exchange.h"
#include "support/program.h"

namespace test {
namespace {

using namespace loopback;  // the servers

struct Tool : Program {
    explicit Tool(const std::string& arguments) : Program(ZEL_HTTP_TOOL_PATH " " + arguments) {}
};

struct ToolOnTerminal : Program {
    explicit ToolOnTerminal(const std::string& arguments, const std::string& environment = "")
        : Program("env TERM=xterm " + environment + " script -qec '" ZEL_HTTP_TOOL_PATH " " +
                  arguments + "' /dev/null </dev/null") {}
};

TEST(Tool, OutcomesAndExitStatus) {
    const loopback::Origin origin;
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
        {"-o ''" + hello, "zel-http: -o: the file has no name", 2},
        {"--output=" + hello, "zel-http: -o: takes the body of one URL", 2},
        {"-o /tmp/x -O /tmp" + hello, "zel-http: --output excludes --output-dir", 2},
        {"-o /no/such/file" + hello, "cannot write /no/such/file (No such file or directory)", 1},
        {"-o /dev/full" + hello, "cannot write /dev/full (No space left on device)", 1},
        {"--json -o /dev/full" + hello, R"("error":{"failure":"cannot write /dev/full")", 1},
        {"--json -o /dev/null " + origin.url("/private"), R"("status":401,"headers":{)", 1},
        {"--max-size 9 -o /dev/null " + origin.url("/bytes/10?chunked"), "(larger than --max-size)",
         1},
        {"-i -o -" + hello, "zel-http: -o: the body alone goes to standard output", 2},
        {"--repeat 2" + hello + " >/dev/full", "", 1},
        {"-q -o -" + hello + " | tr a-z A-Z", "HELLO\nexit", 0},
        {"-O /tmp" + hello + hello + "?again",
         "zel-http: -O: two URLs would be saved as /tmp/hello", 2},
        {"-O /tmp " + origin.url("/"), "names no file", 2},
        {"--repeat 2 -o /tmp/x" + hello, "zel-http: --repeat: drops the bodies", 2},
        {"--repeat 20 --parallel 3" + hello, "20 requests in ", 0},
        {"--timings" + hello, "ms; new connection to 127.0.0.1:", 0},
        {"--json" + hello, R"("status":200,"headers":{")", 0},
        {"--json" + hello,
         R"("body_bytes":6,"body":"hello\n","http_version":"1.1","remote":"127.0.0.1:)", 0},
        {"--json -d @/bin/true" + echo, R"("body_base64":"f0VMR)", 0},
        {"--json ''", R"("error":{"failure":"<Invalid URL>","message":)", 1},
        {"--manual", ".SH EXAMPLES\n", 0},
        {"--completion bash | bash -c '. /dev/stdin; COMP_WORDS=(zel-http --re); COMP_CWORD=1; "
         "_zel_http; "
         "echo ${COMPREPLY[@]}'",
         "--request --reset-state --repeat\n", 0},
        {"--brew", "zel-http: ", 2},
        {"", "22 of 22 scenarios as expected", 0},
    };
    for (const Row& row : rows) {
        const std::string output = Tool(row.arguments).finish();
        EXPECT_NE(output.find(row.shown), std::string::npos) << row.arguments << ":\n" << output;
        EXPECT_NE(output.find("exit " + std::to_string(row.status)), std::string::npos)
            << row.arguments << ":\n"
            << output;
    }
}

/// A folder that goes with this object.
class Folder {
public:
    Folder() { path_ = mkdtemp(path_.data()); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    ~Folder() { std::filesystem::remove_all(path_); }
    const std::string& path() const { return path_; }
    /// The names of the files, sorted.
    std::vector<std::string> files() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(path_))
            names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }

    std::string read(const std::string& name) const {
        std::ifstream file(path_ + '/' + name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

private:
    std::string path_ = testing::TempDir() + "zel-http-XXXXXX";
};

TEST(Tool, ADownloadAppearsWhenItIsWhole) {
    const Folder folder;
    const loopback::Origin origin;
    ScriptedServer cut([](Socket& socket) {
        readRequest(socket);
        write(socket, "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhalf ");
    });
    // Larger than what may wait in memory, so that the transfer pauses on the way.
    const std::string output = Tool("-O " + folder.path() + " " + origin.url("/bytes/30000000") +
                                    " " + origin.url("/status/404") + " " + cut.url() + "/cut")
                                   .finish();
    EXPECT_EQ(folder.files(), std::vector<std::string>{"30000000"}) << output;
    EXPECT_TRUE(folder.read("30000000") == loopback::bodyOf(30000000));
    EXPECT_NE(output.find("/status/404  not saved\n"), std::string::npos) << output;
    EXPECT_NE(output.find("<Protocol failure>"), std::string::npos) << output;
    EXPECT_NE(output.find("exit 1"), std::string::npos) << output;

    // What is there stays: behind a link when there is no body, its mode and names, before what is
    // appended.
    namespace fs = std::filesystem;
    const fs::path file = folder.path() + "/30000000";
    const std::string link = folder.path() + "/link";
    const std::string log = folder.path() + "/log";
    fs::create_symlink("30000000", link);
    Tool("-o " + link + " " + origin.url("/status/404")).finish();
    EXPECT_TRUE(folder.read("30000000") == loopback::bodyOf(30000000));
    fs::permissions(file, fs::perms::owner_all);
    Tool("-o " + link + " " + origin.url("/hello")).finish();
    EXPECT_EQ(folder.read("30000000"), "hello\n");
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_all);
    EXPECT_TRUE(fs::is_symlink(link));
    fs::create_hard_link(file, folder.path() + "/second");
    Tool("-o " + link + " " + origin.url("/bytes/5")).finish();
    EXPECT_EQ(folder.read("second"), bodyOf(5));
    Tool("-q -o - " + origin.url("/hello") + " >>" + log).finish();
    Tool("-q -o - " + origin.url("/hello") + " >>" + log).finish();
    EXPECT_EQ(folder.read("log"), "hello\nhello\n");
}

TEST(Tool, TwoDownloadsToOneFileDoNotMix) {
    const Folder folder;
    const loopback::Origin origin;
    std::promise<void> arrived;
    std::promise<void> proceed;
    ScriptedServer slow([&](Socket& socket) {
        readRequest(socket);
        write(socket, "HTTP/1.1 200 OK\r\nContent-Length: 8\r\n\r\nslow");
        arrived.set_value();
        proceed.get_future().wait_for(patience);
        write(socket, "slow");
    });
    const std::string output = "-o " + folder.path() + "/file ";
    Tool first(output + slow.url());
    arrived.get_future().wait_for(patience);
    Tool(output + origin.url("/bytes/5")).finish();
    EXPECT_EQ(folder.read("file"), bodyOf(5));
    proceed.set_value();
    first.finish();
    EXPECT_EQ(folder.read("file"), "slowslow");
    EXPECT_EQ(folder.files(), std::vector<std::string>{"file"});
}

TEST(Tool, OnATerminal) {
    const loopback::Origin origin;
    const std::string binary = ToolOnTerminal("-q " + origin.url("/bytes/100")).finish();
    EXPECT_EQ(binary,
              "zel-http: the body is binary; -o FILE saves it, -o - shows it anyway\r\nexit 1");
    const std::string hello = "-v 1 " + origin.url("/hello");
    EXPECT_TRUE(ToolOnTerminal(hello, "NO_COLOR=").prints("\x1b["));
    EXPECT_FALSE(ToolOnTerminal(hello, "NO_COLOR=1").prints("\x1b["));
    ScriptedServer large([](Socket& socket) {
        readRequest(socket);
        write(socket, "HTTP/1.1 200 OK\r\nContent-Length: 5368709120\r\n\r\nfirst");
        waitForClose(socket);
    });
    EXPECT_TRUE(
        ToolOnTerminal("--timeout 2 -o /dev/null " + large.url()).prints(" 0 % of 5120.0 MiB"));
}

TEST(Tool, SignalsCancelAndEndCleanly) {
    const Folder folder;
    const std::string file = "-o " + folder.path() + "/file ";
    struct Row {
        std::string arguments;
        int signal;
        const char* status;
    };
    const std::vector<Row> rows = {
        {"", SIGINT, "130"}, {file, SIGINT, "130"}, {file, SIGTERM, "143"}, {file, SIGHUP, "129"}};
    for (const auto& [arguments, signal, status] : rows) {
        ASSERT_NE(std::signal(signal, SIG_DFL), SIG_ERR);  // the tool leaves alone what is ignored
        std::atomic<bool> arrived{false};
        ScriptedServer silent([&](Socket& socket) {
            arrived = true;
            waitForClose(socket);
        });
        Tool running(arguments + silent.url());
        while (!arrived) std::this_thread::yield();
        running.interrupt(signal);
        EXPECT_EQ(running.finish(),
                  std::string("zel-http: interrupted, 1 cancelled\nexit ") + status);
        EXPECT_EQ(folder.files(), std::vector<std::string>());
    }
}

}  // namespace
}  // namespace test
