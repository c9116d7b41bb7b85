// The command-line tool and the examples as their user sees them: output and exit status.

#include <unistd.h>

#include <array>
#include <boost/algorithm/string/replace.hpp>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "loopback/tls_servers.h"
#include "support/real_servers.h"

namespace test {

namespace fs = std::filesystem;

const std::string tool = ZEL_HTTP_TOOL " ";

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
    std::string text = contentOf(ZEL_HTTP_SERVER_CONFIGURATIONS "../programs.txt");
    for (const auto& [mark, value] : {std::pair<std::string, std::string>("@tool@", ZEL_HTTP_TOOL),
                                      {"@examples@", ZEL_HTTP_EXAMPLES},
#ifdef ZEL_HTTP_WITH_COROUTINES
                                      {"@coroutine@", ZEL_HTTP_EXAMPLES},
#endif
#ifdef ZEL_HTTP_WITH_GLIB
                                      {"@glib@", ZEL_HTTP_EXAMPLES},
#endif
#ifdef ZEL_HTTP_WITH_QT
                                      {"@qt@", ZEL_HTTP_EXAMPLES},
#endif
                                      {"@origin@", origin("")},
                                      {"@mutual@", tls.mutual().url("")},
                                      {"@files@", tls.certificates().file("")}}) {
        boost::algorithm::replace_all(text, mark, value);
    }
    std::istringstream rows(text);
    std::string status, shown, line;
    std::getline(rows, line);  // says what the columns are
    while (std::getline(rows, status, '|')) {
        std::getline(rows, shown, '|');
        std::getline(rows, line);
        if (line[0] == '@') continue;  // for want of that library
        const std::string output = run(line);
        EXPECT_NE(output.find(shown), std::string::npos) << line << ":\n" << output;
        EXPECT_NE(output.find("exit " + status), std::string::npos) << line << ":\n" << output;
        EXPECT_EQ(output.find("secret"), std::string::npos) << line << ":\n" << output;
    }
}

/// A body appears when it is whole; what is there keeps its links and mode, and stays without one.
TEST(Programs, Downloads) {
    std::string folder = testing::TempDir() + "zel-http-XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const auto read = [&](const std::string& name) { return contentOf(folder + '/' + name); };
    const ScriptedServer cut("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhalf ");
    // Larger than what may wait in memory, so that the transfer pauses on the way.
    run(tool + "-O --output-dir " + folder + " " + origin("/bytes/30000000") + " " +
        origin("/status/404") + " " + cut.url("/cut"));
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

    const ScriptedServer resuming([](Socket& socket) {
        const bool rest = readHead(socket).find("\r\nRange: bytes=5-\r\n") != std::string::npos;
        const std::string fields = "\r\nETag: \"1\"\r\nContent-Length: ";
        write(socket, "HTTP/1.1 " +
                          (rest ? "206 Rest\r\nContent-Range: bytes 5-9/10" + fields + "5"
                                : "200 OK" + fields + "10") +
                          "\r\n\r\n" + (rest ? "whole" : "half "));
    });
    run(tool + "-o " + folder + "/resumed " + resuming.url());
    run(tool + "-C - -o " + folder + "/resumed " + resuming.url());
    EXPECT_EQ(read("resumed"), "half whole");
    fs::remove_all(folder);
}

}  // namespace test
