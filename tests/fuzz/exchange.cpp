// Whole exchanges of a client over socket pairs. Whatever a caller's text is, and whatever is
// answered first, no line goes out that was not asked for, the body arrives as it was given, and so
// does the last answer. All of it runs on the engine's thread, so that it has a fixed order.

#include <fuzzer/FuzzedDataProvider.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/algorithm/string.hpp>
#include <cassert>
#include <deque>
#include <future>
#include <set>

#include "Engine/active_task.h"
#include "loopback/recording_logger.h"
#include "oru/executor.h"
#include "zel_http/client.h"
#include "zel_http/engine_hooks.h"

using namespace boost::algorithm;
using namespace zel::http;

namespace {

constexpr char challenge[] =
    "HTTP/1.1 401 Unauthorized\r\nContent-Length: 0\r\n"
    "WWW-Authenticate: Digest realm=\"r\", nonce=\"n\", qop=\"auth\"\r\n\r\n";

struct EngineExecutor final : oru::executor {
    void post(std::function<void()> task, int /*priority*/) override {
        Engine::getEngine()->queueRequest(task);
    }
};

/// The far end of all connections, wherever their URL leads: no packet leaves the process.
struct Server {
    /// What is still to be answered, and what has come, one a connection.
    std::deque<std::string> answers;
    std::vector<std::string> requests;
    int connection = -1;
} server;

/// The request of the transfer that was started last.
std::shared_ptr<Request> request;

curl_socket_t openPair(void* /*data*/, curlsocktype /*purpose*/, curl_sockaddr* /*address*/) {
    int ends[2] = {};
    socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends);
    close(std::exchange(server.connection, ends[1]));
    server.requests.emplace_back();
    return ends[0];
}

bool isWhole(const std::string& text) {
    const auto head = text.find("\r\n\r\n");
    const auto length = text.find("\r\nContent-Length: ");
    if (head == std::string::npos || length > head) return head != std::string::npos;
    return text.size() - head - 4 >= std::strtoul(&text[length + 18], nullptr, 10);
}

/// Sends the next piece of the answer to a whole request, and closes behind the last.
void serve() {
    char byte = 0;
    while (recv(server.connection, &byte, 1, 0) > 0) server.requests.back() += byte;
    if (server.connection == -1 || !isWhole(server.requests.back())) return;
    if (!server.answers.empty()) {
        std::string& answer = server.answers.front();
        const std::string piece = answer.substr(0, 64);
        send(server.connection, piece.data(), piece.size(), MSG_NOSIGNAL);
        answer.erase(0, piece.size());
        if (!answer.empty()) return;
        server.answers.pop_front();
    }
    close(std::exchange(server.connection, -1));
}

/// A request has the line that was asked for, and each of the library's own once at most.
void checkLines(const std::string& head, const std::string& asked) {
    std::set<std::string> own = {"GET",           "POST",   "PUT",        "DELETE",
                                 "PATCH",         "Host",   "User-Agent", "Accept-Charset",
                                 "Authorization", "Accept", "Cookie",     "Content-Length",
                                 "Content-Type"};
    std::vector<std::string> lines;
    iter_split(lines, head, first_finder("\r\n"));
    for (const std::string& line : lines) {
        assert(line.find_first_of("\r\n") == std::string::npos);
        assert(line == asked || own.erase(line.substr(0, line.find_first_of(" :"))) == 1);
    }
}

void exchange(Engine& engine, Client& client, FuzzedDataProvider& input) {
    RequestConfig config;
    config.url = "http://127.0.0.1/";
    config.user = "user";
    config.timeout = std::chrono::seconds(10);
    config.method = static_cast<Method>(input.ConsumeIntegralInRange(0, 5));
    config.max_download_size = input.ConsumeIntegralInRange(-1, 20);
    const bool challenged = input.ConsumeBool();
    const bool declared = input.ConsumeBool();
    std::string name = "X-Name";
    std::string value = "value";
    std::string first_answer;
    std::string& place = *input.PickValueInArray(
        {&first_answer, &config.url, &config.user, &config.password, &name, &value});
    // p pauses, r resumes, c cancels; any other byte is a pass of the engine.
    const std::string script = input.ConsumeRandomLengthString();
    const std::string text = input.ConsumeRandomLengthString();
    place += text;
    config.headers = {{name, value}};
    config.body = input.ConsumeRandomLengthString();
    const std::string content = input.ConsumeRemainingBytesAsString();
    const std::string length = "Content-Length: " + std::to_string(content.size()) + "\r\n";
    server = {};
    if (challenged) server.answers.emplace_back(challenge);
    if (!first_answer.empty()) server.answers.push_back(first_answer);
    server.answers.push_back("HTTP/1.1 200 OK\r\n" + (declared ? length : "") + "\r\n" + content);
    const auto connections = server.answers.size();

    std::vector<ResponseData> outcomes;
    const auto id = client.start_request(
        config, {}, [&](auto, const auto& response) { outcomes.push_back(response); },
        [&](auto, const auto& /*error*/) { outcomes.emplace_back(); });
    engine.processPendingRequests();  // there is no connection yet
    bool held = false;
    const auto pass = [&] {
        engine.queueRequest([] {});  // what is queued keeps it from waiting
        engine.runTasks();
        serve();
        // An answer without a body, or none, ends a paused transfer too.
        assert(!held || outcomes.empty() || outcomes[0].body.empty());
    };
    for (const char step : script) {
        if (step == 'p') {
            held = outcomes.empty() && !server.answers.empty();
            request->pauseRequest();
        } else if (step == 'r') {
            held = false;
            request->resumeRequest();
        } else if (step == 'c') {
            client.cancel_request(id);
        } else {
            pass();
        }
    }
    const bool cancelled = contains(script, "c");
    held = false;
    if (!cancelled) request->resumeRequest();
    request.reset();
    while (outcomes.empty() && !cancelled) pass();
    pass();
    assert(outcomes.size() == 1 || (cancelled && outcomes.empty()));
    close(server.connection);

    const bool plain = text.empty() && !cancelled;
    for (const std::string& sent : server.requests) {
        const auto end = std::min(sent.find("\r\n\r\n"), sent.size());
        checkLines(sent.substr(0, end), name + ": " + value);
        const std::string body = sent.substr(std::min(end + 4, sent.size()));
        assert(plain && config.method <= Method::PUT ? body == config.body
                                                     : starts_with(config.body, body));
    }
    const auto limit = static_cast<std::size_t>(config.max_download_size);  // the largest for none
    for (const ResponseData& response : outcomes) assert(response.body.size() <= limit);
    const bool answered = server.answers.empty() && server.requests.size() == connections;
    if (cancelled || !(plain || answered)) return;
    assert(outcomes[0].status == (content.size() <= limit ? 200 : 0));
    assert(content.size() > limit || outcomes[0].body == content);
}

}  // namespace

CURLMcode engine_curl_multi_add_handle(void* multi, void* easy) {
    static curl_slist* here = curl_slist_append(nullptr, "::127.0.0.1:");
    curl_easy_setopt(easy, CURLOPT_CONNECT_TO, here);
    curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, openPair);
    curl_easy_setopt(easy, CURLOPT_FORBID_REUSE, 1L);
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS, CURLPROTO_HTTP);  // the server knows no TLS
    request = Engine::ActiveTask::of(easy)->request;
    return curl_multi_add_handle(multi, easy);
}

/// The ends of a pair are connected; libcurl tries all the same.
extern "C" __attribute__((visibility("default"))) int connect(int, const sockaddr*, socklen_t) {
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static loopback::RecordingLogger logger(9, 0);
    static EngineExecutor executor;
    static auto& engine = *new Engine([](const auto& closure) { closure(); }, &logger);
    static const auto client = createClient(executor, logger);
    constexpr std::size_t most = 1000;  // holds fewer header fields than the library takes
    if (size > most) return 0;
    const auto task = std::make_shared<std::packaged_task<void()>>([&] {
        FuzzedDataProvider input(data, size);
        exchange(engine, *client, input);
    });
    engine.queueRequest([task] { (*task)(); });
    task->get_future().wait();
    return 0;
}
