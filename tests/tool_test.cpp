// The command-line tool and the examples as their user sees them: output and exit status.

#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "loopback/tls_servers.h"
#include "support/engine_test.h"

namespace test {

namespace fs = std::filesystem;

const std::string tool = ZEL_HTTP_TOOL " ";
const std::string examples = ZEL_HTTP_EXAMPLES "/";

/// All that a program prints, standard error included, and then "exit N".
std::string run(const std::string& command_line) {
    FILE* pipe = popen(("timeout 100 " + command_line + " 2>&1").c_str(), "r");
    std::string output;
    std::array<char, 4096> part{};
    while (const auto length = std::fread(part.data(), 1, part.size(), pipe)) {
        output.append(part.data(), length);
    }
    return output + "exit " + std::to_string(WEXITSTATUS(pclose(pipe)));
}

TEST(Programs, OutputAndExitStatus) {
    const TlsServers tls;
    const auto file = [&](const std::string& name) { return " " + tls.certificates().file(name); };
    const std::string hello = " " + origin("/hello");
    const std::string echo = " " + origin("/echo");
    const std::string missing = " " + origin("/status/404");
    const std::string root = " " + tls.mutual().url("/hello") + file("root.pem");
    struct Row {
        std::string command_line;
        std::string shown;
        int status;
    };
    const Row rows[] = {
        {tool, "22 of 22 scenarios as expected", 0},
        {tool + hello + missing, "404 ", 1},
        {tool + "-i -d a=b" + echo, "X-Method: POST\n", 0},
        {tool + "--help", "Exit status:", 0},
        {tool + "-X BREW" + hello, "zel-http: --request: BREW", 2},
        {tool + "-H 'A: b\r\nC: d'" + hello, "zel-http: -H: a header is one line", 2},
        {tool + "-o /tmp/x" + hello + hello, "zel-http: -o: takes the body of one URL", 2},
        {tool + "--json -o /dev/full" + hello, R"("failure":"cannot write /dev/full")", 1},
        {tool + "--max-size 9" + " " + origin("/bytes/10?chunked"), "<Protocol failure>", 1},
        {tool + "-q -o -" + hello + " | tr a-z A-Z", "HELLO\nexit", 0},
        {tool + "--repeat 20 --parallel 3" + hello, "20 requests in ", 0},
        {tool + "--json" + hello, R"("body_bytes":6,"body":"hello\n","http_version":"1.1")", 0},
        {tool + "--json -d @/bin/true" + echo, R"("body_base64":"f0VMR)", 0},
        {"timeout --preserve-status -s INT 3 " + tool + origin("/silence"),
         "interrupted, 1 cancelled", 130},
        {examples + "first_request" + hello, "200\n", 0},
        {examples + "plain_thread" + hello, "200, 6 bytes\n", 0},
#ifdef ZEL_HTTP_WITH_GLIB
        {examples + "glib_main_loop" + hello, "200, 6 bytes\n", 0},
#endif
#ifdef ZEL_HTTP_WITH_QT
        {examples + "qt_event_loop" + hello, "200, 6 bytes\n", 0},
#endif
        {examples + "many_requests" + hello, "10 answered, 0 failed, 90 cancelled\n", 0},
        {examples + "mutual_tls" + root + file("client.pem") + file("client.key"), "200 hello\n",
         0},
        {examples + "masked_log " + origin("/status/400"), R"("pin": "***"})", 0},
        {examples + "download" + missing + " /dev/null/file", "HTTP code=404\n", 1},
        {examples + "download" + hello + " /dev/null/file", "the disk does not take it\n", 1},
    };
    for (const auto& [command_line, shown, status] : rows) {
        const std::string output = run(command_line);
        EXPECT_NE(output.find(shown), std::string::npos) << command_line << ":\n" << output;
        const std::string exit = "exit " + std::to_string(status);
        EXPECT_NE(output.find(exit), std::string::npos) << command_line << ":\n" << output;
        EXPECT_EQ(output.find("secret"), std::string::npos) << command_line << ":\n" << output;
    }
}

/// A body appears when it is whole; what is there keeps its links and mode, and stays without one.
TEST(Programs, Downloads) {
    std::string folder = testing::TempDir() + "zel-http-XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const auto read = [&](const std::string& name) {
        std::ifstream file(folder + '/' + name, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
    const ScriptedServer cut("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhalf ");
    // Larger than what may wait in memory, so that the transfer pauses on the way.
    run(tool + "-O " + folder + " " + origin("/bytes/30000000") + " " + origin("/status/404") +
        " " + cut.url("/cut"));
    EXPECT_TRUE(read("30000000") == bodyOf(30000000));
    const fs::directory_iterator files(folder);
    EXPECT_EQ(std::distance(begin(files), end(files)), 1);

    const fs::path file = folder + "/file";
    std::ofstream(file) << "before";
    fs::permissions(file, fs::perms::owner_all);
    fs::create_symlink("file", folder + "/link");
    run(tool + "-o " + folder + "/link " + origin("/status/404"));
    EXPECT_EQ(read("file"), "before");
    run(tool + "-o " + folder + "/link " + origin("/hello"));
    EXPECT_EQ(read("file"), "hello\n");
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_all);
    fs::remove_all(folder);
}

}  // namespace test
