#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Download/block_queue.h"
#include "logging/logger.h"
#include "oru/executor.h"
#include "zel_http/download.h"

namespace zel::http {

class Sink;
class Transfer;

/// How a transfer ended, as the engine tells it.
struct TransferEnd {
    enum class Kind { Complete, Failed, Gone };  ///< gone: the engine dropped it without an outcome
    Kind kind = Kind::Gone;
    Failure failure = Failure::ProtocolFailure;
    std::string text;
    TransferFacts facts;
    std::uint32_t status = 0;  ///< of the last response; 0 when none came
};

/// What the handle, the worker, the transfers and the posted tasks of one download share.
struct DownloadState : std::enable_shared_from_this<DownloadState> {
    DownloadState(oru::executor& executor, logging::Logger& logger, DownloadConfig config,
                  DownloadCallbacks callbacks);
    DownloadState(const DownloadState&) = delete;
    DownloadState& operator=(const DownloadState&) = delete;
    ~DownloadState();

    using Call = std::function<void(const DownloadCallbacks&)>;
    /// Runs `call` on the executor's thread, unless the outcome has been told or the handle is
    /// gone by then. Any thread.
    void post(Call call);
    /// As above; nothing is called afterwards.
    void postOutcome(Call call);
    /// Runs `ask` on the executor's thread and makes what it returns the `answer`, 0 if it throws.
    void postQuestion(std::function<std::size_t(const DownloadCallbacks&)> ask);
    /// Sets what is guarded, and tells the worker. Any thread.
    template <typename Change>
    void set(Change change) {
        {
            const std::lock_guard lock(mutex);
            change();
        }
        changed.notify_all();
    }
    /// Lets the sink take what it can without a wait, and returns how many bytes that were, from
    /// the front. With the lock.
    std::size_t writeEagerly(std::string_view block) noexcept;
    /// Lets the engine thread look whether the transfer must pause. Any thread, without the lock.
    void adjustTransfer();

    // Constant after construction.
    const DownloadConfig config;
    oru::executor& executor;
    logging::Logger& logger;
    /// Readable once the handle is dropped, for a worker that waits in `poll`; -1 if none does.
    const int cancelled_descriptor;

    // The executor's thread only. Null once the outcome is told or the handle is dropped.
    std::shared_ptr<const DownloadCallbacks> callbacks;

    std::mutex mutex;
    std::condition_variable changed;
    // Guarded by mutex: what the host wants.
    bool cancelled = false;
    bool paused = false;
    bool more = false;
    std::optional<std::size_t> answer;
    std::optional<DownloadProgress> progress;
    // Guarded by mutex: the transfer of this try. What an earlier one still tells is ignored.
    unsigned current = 0;
    std::weak_ptr<Transfer> transfer;
    std::optional<DownloadHead> head;
    std::optional<TransferEnd> end;
    BlockQueue blocks;
    bool held = false;  ///< the engine thread has paused the transfer
    /// The sink while the worker waits for a block, otherwise null: the engine thread may write to
    /// it, and need not wake the worker for the first byte of a block.
    Sink* waiting_sink = nullptr;
};

}  // namespace zel::http
