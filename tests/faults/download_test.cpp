// A program that is killed while it downloads, again and again, and versions that change meanwhile.

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <map>
#include <random>

#include "support/real_servers.h"

namespace test {

/// On a disk and in memory, where other threads write.
class KilledDownload : public testing::TestWithParam<const char*> {
protected:
    /// Version `n` has a length of its own, by which a state tells which one it vouches for.
    static constexpr std::size_t shortest = 4 << 20;
    static const std::string& version(std::size_t length) {
        static std::map<std::size_t, std::string> versions;
        std::string& body = versions[length];
        if (body.empty()) body = bodyOf(length);
        return body;
    }

    void publish(std::size_t length) const {
        std::ofstream(directory.file("served.new"), std::ios::binary) << version(length);
        std::filesystem::rename(directory.file("served.new"), directory.file("served"));
    }
    /// Starts the example, and kills it after so long unless it ends before. True if it is killed.
    bool download(std::chrono::microseconds life) const {
        const std::string program = std::string(ZEL_HTTP_EXAMPLES) + "/download";
        const std::string url = "http://" + nginx.address("files") + "/served";
        std::string line = "exec " + program + " " + url + " " + file + " >/dev/null 2>&1";
        std::string shell = "sh";
        std::string option = "-c";
        char* const arguments[] = {shell.data(), option.data(), line.data(), nullptr};
        pid_t child = 0;
        EXPECT_EQ(posix_spawn(&child, "/bin/sh", nullptr, nullptr, arguments, environ), 0);
        const auto end = std::chrono::steady_clock::now() + life;
        int status = 0;
        waitFor("the program's end", [&] {
            if (std::chrono::steady_clock::now() > end) kill(child, SIGKILL);
            return waitpid(child, &status, WNOHANG) == child;
        });
        return WIFSIGNALED(status);
    }
    /// The file has a whole version; the part has the beginning of the one that its state names.
    void check() const {
        const std::string whole = contentOf(file);
        EXPECT_TRUE(!std::filesystem::exists(file) || whole == version(whole.size()));
        const std::string state = contentOf(file + ".part.state");
        const auto total = state.find("\ntotal ");
        if (state.find("\nend\n") == std::string::npos) return;
        const std::string part = contentOf(file + ".part");
        const std::string& named = version(std::stoul(state.substr(total + 7)));
        EXPECT_TRUE(part == named.substr(0, part.size()));
    }

    const Directory directory{GetParam()};
    const std::string file = directory.file("file");
    const Daemon nginx{"nginx -c @conf@ -e " + directory.file("error"), configurationOf("files"),
                       directory.file("")};
};

INSTANTIATE_TEST_SUITE_P(In, KilledDownload, testing::Values("/var/tmp", "/dev/shm"));

TEST_P(KilledDownload, LeavesAWholeFileOrAPartThatResumes) {
    constexpr int rounds = 20;
    std::mt19937 random(20);
    std::uniform_int_distribution<int> life(10000, 150000);
    std::size_t killed = 0;
    std::size_t length = shortest;
    publish(length);
    for (int round = 0; round < rounds; ++round) {
        if (round % 7 == 6) publish(++length);
        if (download(std::chrono::microseconds(life(random)))) ++killed;
        check();
    }
    EXPECT_FALSE(download(std::chrono::minutes(1)));
    EXPECT_TRUE(contentOf(file) == version(length));
    EXPECT_FALSE(std::filesystem::exists(file + ".part.state"));
    RecordProperty("outcome", std::to_string(killed) + " of " + std::to_string(rounds) + " killed");
}

}  // namespace test
