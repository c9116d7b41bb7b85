// The examples as their reader runs them, against an origin: what they print, and how they end.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "loopback/tls_servers.h"
#include "support/exchange.h"
#include "support/program.h"

namespace test {
namespace {

/// NAME and its arguments.
std::string example(const std::string& command_line) {
    return ZEL_HTTP_EXAMPLES "/" + command_line;
}

TEST(Examples, PrintWhatTheyPromise) {
    const loopback::Origin origin;
    const loopback::TlsServers tls;
    const std::string hello = " " + origin.url("/hello");
    const std::string refused = " http://127.0.0.1:" + std::to_string(loopback::closedPort()) + "/";
    const std::string root =
        " " + tls.mutual().url("/hello") + " " + tls.certificates().file("root.pem");
    const std::string client =
        " " + tls.certificates().file("client.pem") + " " + tls.certificates().file("client.key");
    struct Row {
        std::string command_line;
        std::string shown;
    };
    const Row rows[] = {
        {"first_request" + hello, "200\nexit 0"},
        {"plain_thread" + hello, "200, 6 bytes\nexit 0"},
        {"plain_thread" + refused, "Couldn't connect to server\nexit 0"},
#ifdef ZEL_HTTP_WITH_GLIB
        {"glib_main_loop" + hello, "200, 6 bytes\nexit 0"},
        {"glib_main_loop" + refused, "Couldn't connect to server\nexit 0"},
#endif
#ifdef ZEL_HTTP_WITH_QT
        {"qt_event_loop" + hello, "200, 6 bytes\nexit 0"},
        {"qt_event_loop" + refused, "Couldn't connect to server\nexit 1"},
#endif
        {"many_requests" + hello, "10 answered, 0 failed, 90 cancelled\nexit 0"},
        {"many_requests" + refused, "0 answered, 100 failed, 0 cancelled\nexit 0"},
        {"mutual_tls" + root + client, "200 hello\nexit 0"},
        {"mutual_tls" + root + " none none", "exit 1"},
        {"mutual_tls" + root, "usage: mutual_tls URL CA_FILE OWN_CERT OWN_KEY\nexit 2"},
        {"masked_log " + origin.url("/echo"), "/echo?token=***\n"},
        {"masked_log " + origin.url("/echo"), " Authorization: ***\n"},
        {"masked_log " + origin.url("/status/400"), R"({"door": "garage", "pin": "***"})"},
        {"masked_log" + refused, "?token=***): 7 'Couldn't connect to server'"},
        {"download " + origin.url("/status/404") + " /dev/null/file", "HTTP code=404\nexit 1"},
        {"download" + hello + " /dev/null/file", "the disk does not take it\nexit 1"},
    };
    for (const Row& row : rows) {
        const std::string output = Program(example(row.command_line)).finish();
        EXPECT_NE(output.find(row.shown), std::string::npos) << row.command_line << ":\n" << output;
        EXPECT_EQ(output.find("secret"), std::string::npos) << row.command_line << ":\n" << output;
    }
}

/// A pipe is a disk that takes nothing until somebody reads it.
TEST(Examples, DownloadPausesWhileTheDiskIsBehindAndThenCompletes) {
    const std::string body = loopback::bodyOf(20'000'000);
    const loopback::Origin origin;
    const std::string file = testing::TempDir() + "zel-http-download-" + std::to_string(getpid());
    ASSERT_EQ(mkfifo((file + ".part").c_str(), 0600), 0);
    const int disk = open((file + ".part").c_str(), O_RDWR | O_CLOEXEC);
    Program download(example("download " + origin.url("/bytes/20000000") + " " + file));
    EXPECT_TRUE(download.prints(" of 20000000 bytes, paused"));
    std::string written(body.size(), '\0');
    for (std::size_t length = 0; length < written.size();) {
        const auto part = read(disk, &written[length], written.size() - length);
        ASSERT_GT(part, 0);
        length += static_cast<std::size_t>(part);
    }
    EXPECT_TRUE(written == body);
    const std::string output = download.finish();
    EXPECT_NE(output.find("100 %, 20000000 of 20000000 bytes         \ncomplete\nexit 0"),
              std::string::npos)
        << output;
    EXPECT_EQ(unlink(file.c_str()), 0);  // renamed
    close(disk);
}

}  // namespace
}  // namespace test
