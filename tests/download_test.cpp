// Downloads: what is resumed, repeated, refused and limited, and how they end.

#include "zel_http/download.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <deque>
#include <filesystem>
#include <mutex>
#include <random>
#include <thread>

#include "Download/retry_rule.h"
#include "support/directory.h"
#include "support/engine_test.h"

namespace test {

using namespace zel::http;
using std::chrono::milliseconds;

const std::string old_body = "0123456789";
const std::string new_body = "abcdefghij";

std::string answer(const std::string& status, const std::string& fields, const std::string& body) {
    return "HTTP/1.1 " + status + " X\r\n" + fields + "\r\n" + body;
}
std::string whole(const std::string& fields = "ETag: \"new\"\r\n") {
    return answer("200", "Content-Length: 10\r\n" + fields, new_body);
}
std::string rest(const std::string& range, const std::string& fields = "ETag: \"old\"\r\n") {
    return answer("206", "Content-Range: bytes " + range + "\r\nContent-Length: 5\r\n" + fields,
                  old_body.substr(5));
}
/// Half of the old version, then the end of the connection.
std::string half(const std::string& fields = "ETag: \"old\"\r\n") {
    return answer("200", "Content-Length: 10\r\n" + fields, old_body.substr(0, 5));
}

/// Gives one answer after the other, the last one again and again, and keeps what was asked.
class Answers {
public:
    explicit Answers(std::deque<std::string> answers, Script then = zel::testing::close)
        : answers_(std::move(answers)), then_(std::move(then)) {}
    std::string url() const { return server_.url(); }
    /// The ranges that were asked for, each followed by a comma.
    std::string ranges() {
        const std::lock_guard lock(mutex_);
        return ranges_;
    }

private:
    void serve(Socket& socket) {
        const std::string asked = readRequest(socket);
        std::string next;
        {
            const std::lock_guard lock(mutex_);
            const auto range = asked.find("Range: bytes=");
            const auto from = range == std::string::npos ? asked.size() : range + 13;
            ranges_ += asked.substr(from, asked.find('\r', from) - from) + ",";
            next = answers_.front();
            if (answers_.size() > 1) answers_.pop_front();
        }
        write(socket, next);
        if (next == half()) then_(socket);
    }

    std::mutex mutex_;
    std::deque<std::string> answers_;  // guarded by mutex_
    std::string ranges_;               // guarded by mutex_
    Script then_;
    ScriptedServer server_{[this](Socket& socket) { serve(socket); }};
};

class Downloads : public EngineTest {
protected:
    void TearDown() override {
        handle = {};
        EngineTest::TearDown();
    }
    DownloadConfig toFile(const std::string& url) const {
        DownloadConfig config;
        config.request = Get(url);
        config.sink = FileSink{file};
        config.retry.base = milliseconds(0);
        return config;
    }
    /// Starts a download whose outcome becomes "206 complete" or, say, "4 status 404".
    void start(const DownloadConfig& config) {
        outcome.clear();
        callbacks.on_complete = [this](const DownloadResult& result) {
            outcome = std::to_string(result.head.status) + " complete";
        };
        callbacks.on_error = [this](const DownloadError& error) {
            outcome = std::to_string(static_cast<int>(error.failure)) + " " + error.message;
        };
        handle = startDownload(executor, logger, config, callbacks);
    }
    std::string outcomeOf(const DownloadConfig& config) {
        start(config);
        runUntil("the outcome of a download", [this] { return !outcome.empty(); });
        return outcome;
    }
    /// Lets the executor, the engine and a whole transfer pass by.
    void letOthersRun() { EngineTest::outcomeOf(origin("/hello")); }
    bool leavesPart() const { return std::filesystem::exists(file + ".part"); }
    std::string content() const { return contentOf(file); }

    const Directory directory{"/dev/shm"};  // in memory: the engine thread writes, too
    const std::string file = directory.file("file");
    DownloadCallbacks callbacks;
    Download handle;
    std::string outcome;
};

struct ResumeRow {
    const char* name;
    std::deque<std::string> answers;
    std::string ranges;
    std::string outcome;
    std::string content;
    OnChange on_change = OnChange::StartOver;
};

class Resume : public Downloads, public testing::WithParamInterface<ResumeRow> {};
INSTANTIATE_TEST_SUITE_P(
    Of, Resume,
    testing::Values(
        ResumeRow{"Rest", {half(), rest("5-9/10")}, ",5-,", "206 complete", old_body},
        ResumeRow{"RestOfUnknownTotal", {half(), rest("5-9/*")}, ",5-,", "206 complete", old_body},
        ResumeRow{"OtherVersion", {half(), whole()}, ",5-,", "200 complete", new_body},
        ResumeRow{"RestOfOtherVersion",
                  {half(), rest("5-9/10", "ETag: \"new\"\r\n"), whole()},
                  ",5-,,",
                  "200 complete",
                  new_body},
        ResumeRow{"RestOfOtherTotal",
                  {half(), rest("5-9/11"), whole()},
                  ",5-,,",
                  "200 complete",
                  new_body},
        ResumeRow{
            "OtherRange", {half(), rest("4-8/10"), whole()}, ",5-,,", "200 complete", new_body},
        ResumeRow{"NoRange",
                  {half(), answer("416", "Content-Range: bytes */3\r\n", ""), whole()},
                  ",5-,,",
                  "200 complete",
                  new_body},
        ResumeRow{"OtherRangeThatFails",
                  {half(), rest("4-8/10")},
                  ",5-,",
                  "8 the server does not continue what is there",
                  "",
                  OnChange::Fail},
        ResumeRow{"OtherVersionThatFails",
                  {half(), whole()},
                  ",5-,",
                  "8 the server starts over",
                  "",
                  OnChange::Fail},
        ResumeRow{
            "WeakTag", {half("ETag: W/\"old\"\r\n"), whole()}, ",,", "200 complete", new_body},
        ResumeRow{"StrongDate",
                  {half("Date: Thu, 01 Jan 2015 00:00:10 GMT\r\n"
                        "Last-Modified: Thu, 01 Jan 2015 00:00:00 GMT\r\n"),
                   rest("5-9/10", "")},
                  ",5-,",
                  "206 complete",
                  old_body},
        ResumeRow{"WeakDate",
                  {half("Date: Thu, 01 Jan 2015 00:00:00 GMT\r\n"
                        "Last-Modified: Thu, 01 Jan 2015 00:00:00 GMT\r\n"),
                   whole()},
                  ",,",
                  "200 complete",
                  new_body}),
    nameOf<ResumeRow>);

TEST_P(Resume, WithinADownload) {
    Answers server(GetParam().answers);
    auto config = toFile(server.url());
    config.sink = FileSink{file, GetParam().on_change};
    EXPECT_EQ(outcomeOf(config), GetParam().outcome);
    EXPECT_EQ(content(), GetParam().content);
    EXPECT_EQ(server.ranges(), GetParam().ranges);
}

TEST_P(Resume, ByALaterDownload) {
    Answers server(GetParam().answers);
    auto config = toFile(server.url());
    config.sink = FileSink{file, GetParam().on_change};
    config.retry.most_retries = 0;
    EXPECT_EQ(outcomeOf(config).substr(0, 2), "2 ");
    EXPECT_EQ(outcomeOf(config), GetParam().outcome);
    EXPECT_EQ(content(), GetParam().content);
    EXPECT_EQ(server.ranges(), GetParam().ranges);
}

// Open before a test counts its descriptors.
const int full_device = open("/dev/full", O_WRONLY | O_CLOEXEC);
const int null_device = open("/dev/null", O_WRONLY | O_CLOEXEC);

struct EndRow {
    const char* name;
    std::deque<std::string> answers;
    std::string outcome;
    std::function<void(DownloadConfig&)> change = [](DownloadConfig& /*config*/) {};
    Script then = zel::testing::close;
};

const std::string chunked = answer("200", "Transfer-Encoding: chunked\r\n", "a\r\n" + new_body);

class End : public Downloads, public testing::WithParamInterface<EndRow> {};
INSTANTIATE_TEST_SUITE_P(
    After, End,
    testing::Values(
        EndRow{"Status404", {answer("404", "Content-Length: 3\r\n", "404")}, "6 status 404"},
        EndRow{"Status503", {answer("503", "", ""), whole()}, "200 complete"},
        EndRow{
            "RestThatIsShort",
            {answer("200", "Transfer-Encoding: chunked\r\nETag: \"old\"\r\n",
                    "5\r\n" + old_body.substr(0, 5) + "\r\n"),
             answer("206", "Content-Range: bytes 5-7/10\r\nContent-Length: 3\r\nETag: \"old\"\r\n",
                    old_body.substr(5, 3)),
             answer("404", "", "")},
            "6 status 404"},
        EndRow{"CutPost",
               {half(), whole()},
               "2 " + std::string(curl_easy_strerror(CURLE_PARTIAL_FILE)),
               [](auto& config) { config.request.method = Method::POST; }},
        EndRow{"RetriesThatRunOut",
               {answer("500", "", "")},
               "6 status 500",
               [](auto& config) { config.retry.most_retries = 2; }},
        EndRow{"Stall",
               {half(), rest("5-9/10")},
               "206 complete",
               [](auto& config) { config.limits.stall = milliseconds(300); },
               stall},
        EndRow{"StallThatLasts",
               {half()},
               "10 no byte for too long",
               [](auto& config) {
                   config.limits.stall = milliseconds(300);
                   config.retry.most_retries = 0;
               },
               stall},
        EndRow{"WholeTime",
               {half()},
               "11 the time is over",
               [](auto& config) { config.limits.whole = milliseconds(100); },
               stall},
        EndRow{"TimeForNoRetry",
               {answer("503", "Retry-After: 100\r\n", "")},
               "6 status 503",
               [](auto& config) { config.limits.whole = milliseconds(10000); }},
        EndRow{"DeclaredSize",
               {whole()},
               "9 the body is larger than allowed",
               [](auto& config) { config.limits.size = 9; }},
        EndRow{"ActualSize",
               {chunked},
               "9 the body is larger than allowed",
               [](auto& config) { config.limits.size = 9; }},
        EndRow{"RightSum",
               {half(), rest("5-9/10")},
               "206 complete",
               [](auto& config) {
                   config.sha256 =
                       "84D89877F0D4041EFB6BF91A16F0248F2FD573E6AF05C19F96BEDB9F882F7882";
               }},
        EndRow{"WrongSum",
               {whole()},
               "12 the SHA-256 of the body is "
               "72399361da6a7754fec986dca5b7cbaf1c810a28ded4abaf56b2106d06cb78b0",
               [](auto& config) { config.sha256 = "00"; }},
        EndRow{"NoRoom",
               {whole()},
               "13 cannot write the descriptor: No space left on device",
               [](auto& config) { config.sink = DescriptorSink{full_device}; }},
        EndRow{"DescriptorThatCannotStartOver",
               {half(), whole()},
               "8 the server starts over",
               [](auto& config) { config.sink = DescriptorSink{null_device}; }},
        EndRow{"CallableThatContinues",
               {half(), rest("5-9/10")},
               "206 complete",
               [](auto& config) {
                   config.sink = CallableSink{[](const char*, std::size_t size) { return size; }};
               }}),
    nameOf<EndRow>);

TEST_P(End, IsTold) {
    Answers server(GetParam().answers, GetParam().then);
    auto config = toFile(server.url());
    GetParam().change(config);
    EXPECT_EQ(outcomeOf(config), GetParam().outcome);
    const bool complete = outcome.find("complete") != std::string::npos;
    const bool to_file = std::holds_alternative<FileSink>(config.sink);
    EXPECT_EQ(std::filesystem::exists(file), complete && to_file);
    EXPECT_FALSE(complete && leavesPart());
    // A part that nothing can continue is of no use.
    EXPECT_EQ(std::filesystem::exists(file + ".part"),
              std::filesystem::exists(file + ".part.state"));
}

TEST_F(Downloads, HaveRoomForTheirFileAlone) {
    const int held = open((file + ".part").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    flock(held, LOCK_EX);
    EXPECT_EQ(outcomeOf(toFile(origin("/hello"))), "14 another download writes " + file + ".part");
    close(held);
    std::filesystem::create_directories(file + "/directory");
    EXPECT_EQ(outcomeOf(toFile(origin("/hello"))),
              "13 cannot rename " + file + ".part: Is a directory");
}

TEST_F(Downloads, AskTheHostBeforeTheFirstByte) {
    std::uint32_t status = 0;
    callbacks.on_head = [&](const DownloadHead& head) {
        status = head.status;
        return false;
    };
    auto config = toFile(origin("/status/404"));
    config.any_status = true;
    EXPECT_EQ(outcomeOf(config), "7 the head was refused");
    EXPECT_EQ(status, 404U);
}

TEST_F(Downloads, ReportRetriesAndProgress) {
    Answers server({answer("429", "Retry-After: 1\r\n", ""), whole()});
    milliseconds delay(0);
    std::uint64_t bytes = 0;
    callbacks.on_retry = [&](const DownloadRetry& retry) { delay = retry.delay; };
    callbacks.on_progress = [&](const DownloadProgress& progress) { bytes = progress.bytes; };
    auto config = toFile(server.url());
    config.progress_interval = milliseconds(0);
    EXPECT_EQ(outcomeOf(config), "200 complete");
    EXPECT_GE(delay, milliseconds(1000));
    EXPECT_EQ(bytes, 10U);
}

TEST_F(Downloads, KeepToTheRate) {
    auto config = toFile(origin("/bytes/100000"));
    config.limits.bytes_per_second = 400000;
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(outcomeOf(config), "200 complete");
    EXPECT_GE(std::chrono::steady_clock::now() - begun, milliseconds(240));
    EXPECT_EQ(content(), bodyOf(100000));
}

/// The pauses of the callable and of the host do not end each other, and are no stall.
TEST_F(Downloads, PauseForTwoReasons) {
    constexpr std::size_t size = 8 << 20;
    std::string body;
    int calls = 0;
    bool takes = false;
    auto config = toFile(origin("/bytes/" + std::to_string(size)));
    config.limits.stall = milliseconds(1000);
    config.retry.most_retries = 0;
    config.sink = CallableSink{[&](const char* data, std::size_t offered) {
        ++calls;
        EXPECT_LE(offered, 544U * 1024) << "in memory";
        const std::size_t taken = takes ? offered : 1;
        body.append(data, taken);
        return taken;
    }};
    start(config);
    runUntil("a first block", [&] { return calls == 1; });
    handle.pause();
    takes = true;
    handle.takeMore();
    EngineTest::outcomeOf(Get(origin("/silence")).within(1100));
    EXPECT_EQ(calls, 1);
    handle.resume();
    runUntil("the end", [this] { return !outcome.empty(); });
    EXPECT_EQ(outcome, "200 complete");
    EXPECT_EQ(body, bodyOf(size));
}

/// What the engine thread writes and what waits for room come in their order.
TEST_F(Downloads, FillAPipeAsItIsRead) {
    constexpr std::size_t size = 4 << 20;
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    std::string body;
    std::thread reader([&] {
        std::minstd_rand random(1);
        std::string block(200000, '\0');
        ssize_t got = 0;
        while ((got = read(ends[0], block.data(), random() % block.size() + 1)) > 0) {
            body.append(block.data(), static_cast<std::size_t>(got));
        }
    });
    auto config = toFile(origin("/bytes/" + std::to_string(size)));
    config.sink = DescriptorSink{ends[1]};
    EXPECT_EQ(outcomeOf(config), "200 complete");
    close(ends[1]);
    reader.join();
    close(ends[0]);
    EXPECT_TRUE(body == bodyOf(size));
}

TEST_F(Downloads, EndAPipeThatNobodyReads) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    auto config = toFile(origin("/bytes/1000000"));
    config.sink = DescriptorSink{ends[1]};
    bool asked = false;
    callbacks.on_head = [&](const auto& /*head*/) { return asked = true; };
    start(config);
    runUntil("the head", [&] { return asked; });
    waitFor("a full pipe", [&] {
        pollfd room{ends[1], POLLOUT, 0};
        return poll(&room, 1, 0) == 0;
    });
    handle = {};
    for (const int end : ends) close(end);
}

/// A dropped handle is heard of no more, whichever callback drops it.
TEST_F(Downloads, AreDroppedAtAnyStage) {
    for (const std::string stage :
         {"start", "head", "progress", "take", "retry", "outcome", "engine"}) {
        Answers server({half(), rest("5-9/10")}, stage == "engine" ? stall : zel::testing::close);
        int calls = 0;
        bool answered = false;
        const auto at = [&](const char* name) {
            EXPECT_EQ(calls, 0) << stage;
            if (stage != name) return;
            ++calls;
            handle = {};
        };
        callbacks.on_head = [&](const auto& /*head*/) {
            at("head");
            return answered = true;
        };
        callbacks.on_progress = [&](const auto& /*progress*/) { at("progress"); };
        callbacks.on_retry = [&](const auto& /*retry*/) { at("retry"); };
        auto config = toFile(server.url());
        config.progress_interval = milliseconds(0);
        if (stage == "take") {
            config.sink = CallableSink{[&](const char* /*data*/, std::size_t size) {
                at("take");
                return size;
            }};
        }
        start(config);
        if (stage == "start") at("start");
        runUntil(stage,
                 [&] { return calls == 1 || !outcome.empty() || (stage == "engine" && answered); });
        if (stage == "engine") {
            engine.reset();
            runUntil("the end of the engine", [this] { return !outcome.empty(); });
            EXPECT_EQ(outcome, "15 there is no engine");
            startEngine();
        }
        letOthersRun();
        EXPECT_EQ(outcome.empty(), stage != "outcome" && stage != "engine") << stage;
    }
}

TEST(RetryRule, DelaysWithinBounds) {
    const RetryPolicy policy{9, milliseconds(1000), milliseconds(5000), milliseconds(7000)};
    const std::time_t now = curl_getdate("Thu, 01 Jan 2015 00:00:00 GMT", nullptr);
    const auto delay = [&](unsigned attempt, const std::string& retry_after, double share = 1) {
        return delayBefore(attempt, policy, share, parseRetryAfter(retry_after, now)).count();
    };
    EXPECT_EQ(delay(1, ""), 1000);
    EXPECT_EQ(delay(3, ""), 4000);
    EXPECT_EQ(delay(400, ""), 5000);
    EXPECT_EQ(delay(1, "6", 0), 6000);
    EXPECT_EQ(delay(1, "6"), 12000);
    EXPECT_EQ(delay(9, "2"), 7000);
    EXPECT_EQ(delay(1, "99999999999999999999"), 1000);
    EXPECT_EQ(delay(1, "3600", 0), 7000);
    EXPECT_EQ(delay(1, "Thu, 01 Jan 2015 00:00:03 GMT", 0), 3000);
    EXPECT_EQ(delay(1, "Wed, 31 Dec 2014 00:00:03 GMT"), 1000);
}

}  // namespace test
