// cpp-httplib: a blocking client in a thread of its own for each request in flight.

#include <httplib.h>

#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "load.h"

namespace {

struct Request {
    std::size_t id;
    std::string url;
};

class Threads {
public:
    explicit Threads(bench::Load& load) : load_(load) {}

    /// Under the mutex, which `Load` needs too.
    void start(std::size_t id, const std::string& url) {
        queue_.push_back({id, url});
        queued_.notify_one();
    }

    int run() {
        const bench::Work& work = load_.work();
        for (std::size_t i = 0; i < work.in_flight + work.waiting; ++i) {
            std::thread([this] { serve(); }).detach();
        }
        std::unique_lock lock(mutex_);
        load_.begin([this](std::size_t id, const std::string& url) { start(id, url); });
        over_.wait(lock, [this] { return load_.over(); });
        return load_.report();
    }

private:
    [[noreturn]] void serve() {
        std::unique_ptr<httplib::Client> client;
        std::string origin;
        std::unique_lock lock(mutex_);
        while (true) {
            queued_.wait(lock, [this] { return !queue_.empty(); });
            const Request request = std::move(queue_.front());
            queue_.pop_front();
            lock.unlock();
            const auto slash = request.url.find('/', request.url.find("://") + 3);
            if (origin != request.url.substr(0, slash)) {
                origin = request.url.substr(0, slash);
                client = connect(origin);
            }
            const httplib::Result result = ask(*client, request.url.substr(slash));
            lock.lock();
            load_.finished(request.id, result ? result->status : 0,
                           result ? result->body.size() : 0);
            if (load_.over()) over_.notify_one();
        }
    }

    std::unique_ptr<httplib::Client> connect(const std::string& origin) {
        auto client = std::make_unique<httplib::Client>(origin);
        client->set_keep_alive(true);
        client->set_tcp_nodelay(true);
        client->set_read_timeout(std::chrono::hours(1));
        client->set_follow_location(true);
        if (!load_.work().ca_file.empty()) client->set_ca_cert_path(load_.work().ca_file.c_str());
        return client;
    }

    httplib::Result ask(httplib::Client& client, const std::string& path) {
        const std::string& method = load_.work().method;
        const char* type = "application/octet-stream";
        if (method == "POST") return client.Post(path, load_.body(), type);
        if (method == "PUT") return client.Put(path, load_.body(), type);
        return client.Get(path);
    }

    bench::Load& load_;
    std::mutex mutex_;
    std::condition_variable queued_;
    std::condition_variable over_;
    std::deque<Request> queue_;
};

}  // namespace

int main(int argc, char** argv) {
    bench::Load load("cpp-httplib", argc, argv);
    Threads threads(load);
    std::_Exit(threads.run());
}
