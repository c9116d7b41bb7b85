#pragma once

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <thread>

#include "ledger.h"
#include "oru/asio_executor.h"
#include "work.h"
#include "zel_http/client.h"
#include "zel_http/request.h"

namespace test {

/// What a load does with what is still in flight at its end.
enum class Ending { wait_for_all, cancel_all };

/// An application under load: a thread with an executor, two clients on it, and requests of its
/// own. It keeps some in flight, cancels at random moments through handles and identifiers, pauses
/// and resumes, and enters into the ledger what becomes of each.
class Caller {
public:
    Caller(const Targets& targets, Ledger& ledger, logging::Logger& logger, unsigned seed);
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;
    ~Caller();

    /// Starts the thread; it ends by itself some time after `until`.
    void run(std::chrono::steady_clock::time_point until, Ending ending);
    void join() { thread_.join(); }
    /// Enters what the engine took with it. After the engine is gone.
    void settle();

private:
    class Streamed;
    struct Entry {
        std::string url;
        std::string expected;
        bool cancelled = false;
        bool delivered = false;
        oru::AsyncActionHandle<zel::http::ZelHttpClientTag> handle;
        zel::http::Client* client = nullptr;
        zel::http::Client::RequestId id = 0;
        std::shared_ptr<Streamed> streamed;
    };

    void startOne();
    void startWithHandle(std::uint64_t key, Entry& entry, const Work& work);
    void startWithIdentifier(std::uint64_t key, Entry& entry, const Work& work);
    void startStreamed(std::uint64_t key, Entry& entry, const Work& work);
    void pauseLater(std::uint64_t key);
    void cancelLater(std::uint64_t key);
    void cancel(Entry& entry);
    void finish(std::uint64_t key, const std::string& outcome);
    /// One request is over.
    void closed();
    void fill();
    void end();
    /// Runs `work` on the entry after some milliseconds unless it is over by then.
    void later(std::uint64_t key, std::function<void(Entry&)> work);

    const Targets& targets_;
    Ledger& ledger_;
    Random random_;
    boost::asio::io_context loop_;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard_;
    oru::asio_executor executor_;
    std::vector<std::shared_ptr<zel::http::Client>> clients_;
    std::map<std::uint64_t, Entry> entries_;
    std::uint64_t next_key_ = 0;
    std::size_t open_ = 0;
    bool running_ = true;
    Ending ending_ = Ending::wait_for_all;
    std::thread thread_;
};

}  // namespace test
