// One response: its head, then its body, block by block. The worker thread.

#include <algorithm>
#include <ctime>
#include <utility>

#include "Download/retry_rule.h"
#include "Download/worker.h"
#include "Download/worker_waits.h"

namespace zel::http {

using std::chrono::milliseconds;

void DownloadWorker::awaitHead() {
    Lock lock(state_->mutex);
    const auto come = [this] { return state_->head || state_->end; };
    while (!come()) {
        waitWhilePaused(lock);
        if (!waitFor(lock, stallDeadline(), [&] { return come() || state_->paused; })) {
            throw Fault(DownloadFailure::Stalled, "no answer for too long", true);
        }
    }
    if (state_->head) {
        head_ = *state_->head;
        return;
    }
    head_.status = state_->end->status;  // such as that of a redirect too many
    lock.unlock();
    checkEnd();
}

/// Decides by the head whether the body is taken, and makes the sink ready for it.
void DownloadWorker::decide() {
    checkStatus();
    const Resumable have = sink_->have();
    Verdict verdict = judge(have, head_);
    if (verdict == Verdict::OtherStatus) verdict = Verdict::Begin;  // `checkStatus` lets it pass
    if (verdict == Verdict::Changed && have.offset == 0 && config_.any_status) {
        verdict = Verdict::Begin;
    }
    const auto* file = std::get_if<FileSink>(&config_.sink);
    const bool replaces = file != nullptr && file->on_change == OnChange::StartOver;
    if (verdict == Verdict::Changed) {
        if (replaces && have.offset != 0) throw StartsOver();
        throw Fault(DownloadFailure::Changed, "the server does not continue what is there");
    }
    const Validator version = validatorOf(head_.headers);
    // A server that knows no ranges sends the same version anew.
    const bool same = file != nullptr && version.value == have.validator.value;
    if (verdict == Verdict::Begin && have.offset != 0 && !replaces && !same) {
        throw Fault(DownloadFailure::Changed, "the server starts over");
    }
    if (verdict == Verdict::Continue) head_.offset = have.offset;
    if (head_.total) checkSize(*head_.total);
    askHost();
    if (verdict == Verdict::Begin) sink_->begin(version, head_.total);
    if (verdict == Verdict::Continue) {  // the range may end before the body does
        const auto range = parseContentRange(fieldOf(head_.headers, "Content-Range"));
        sink_->expect(range->total.value_or(range->last + 1));
    }
    meter_.restart(sink_->have().offset);
}

void DownloadWorker::checkStatus() {
    const std::uint32_t status = head_.status;
    if (status == 200 || status == 206 || config_.any_status) return;
    if (status == 416 && sink_->have().offset != 0) return;
    const bool login = protocol::auth_failure(status);
    Fault fault(login ? DownloadFailure::AuthenticationFailure : DownloadFailure::Status,
                "status " + std::to_string(status), mayPass(status));
    const auto field = head_.headers.find("Retry-After");
    if (field != head_.headers.end()) {
        fault.retry_after = parseRetryAfter(field->second, std::time(nullptr));
    }
    throw Fault(fault);
}

void DownloadWorker::askHost() {
    const std::size_t takes = ask([head = head_](const DownloadCallbacks& callbacks) {
        return !callbacks.on_head || callbacks.on_head(head) ? 1U : 0U;
    });
    if (takes == 0) throw Fault(DownloadFailure::Refused, "the head was refused");
}

void DownloadWorker::takeBody() {
    last_byte_ = Clock::now();
    Lock lock(state_->mutex);
    // An eager sink is offered every byte first, and leaves little.
    if (!sink_->eager()) state_->blocks.enlarge();
    while (awaitBlock(lock)) {
        std::string_view block = state_->blocks.take();
        const bool resumes = state_->held;
        // With the lock: what the engine thread writes from here on comes behind it.
        block.remove_prefix(state_->writeEagerly(block));
        state_->waiting_sink = nullptr;
        lock.unlock();
        if (resumes) state_->adjustTransfer();
        if (!block.empty()) write(block);
        noteBytes();
        lock.lock();
    }
}

/// Waits until there is a block worth writing, or one that nothing was added to for a while. False
/// at the end of the body. Meanwhile the engine thread writes to an eager sink, which leaves blocks
/// only where it is behind.
bool DownloadWorker::awaitBlock(Lock& lock) {
    constexpr milliseconds longest_wait(100);  // of bytes that have come
    const bool eager = sink_->eager();
    const auto reached = [&] {
        const BlockQueue& blocks = state_->blocks;
        return (eager ? !blocks.empty() : blocks.ready()) || state_->end || state_->paused;
    };
    while (true) {
        waitWhilePaused(lock);
        const std::uint64_t before = sink_->have().offset;
        state_->waiting_sink = sink_.get();
        const bool soon = waitFor(lock, Clock::now() + longest_wait, reached);
        if (state_->paused) continue;
        if (!state_->blocks.empty()) return true;
        state_->waiting_sink = nullptr;
        if (sink_->have().offset != before) {
            lock.unlock();
            noteBytes();
            lock.lock();
        } else if (!soon) {
            awaitFirstByte(lock);
        }
        if (state_->end && state_->blocks.empty()) return false;
    }
}

void DownloadWorker::awaitFirstByte(Lock& lock) {
    const auto come = [this] { return !state_->blocks.empty() || state_->end || state_->paused; };
    if (!waitFor(lock, stallDeadline(), come)) {
        throw Fault(DownloadFailure::Stalled, "no byte for too long", true);
    }
}

void DownloadWorker::write(std::string_view block) {
    checkSize(sink_->have().offset + block.size());
    sink_->write(block);
    slowDown(block.size());
}

void DownloadWorker::noteBytes() {
    last_byte_ = Clock::now();
    if (whole_ && last_byte_ >= *whole_) {
        throw Fault(DownloadFailure::TimeLimit, "the time is over");
    }
    report();
}

void DownloadWorker::checkSize(std::uint64_t bytes) const {
    if (config_.limits.size == 0 || bytes <= config_.limits.size) return;
    throw Fault(DownloadFailure::TooLarge, "the body is larger than allowed");
}

/// Keeps to the rate: until the next block is due nothing is taken, and the transfer pauses.
void DownloadWorker::slowDown(std::size_t bytes) {
    if (config_.limits.bytes_per_second == 0) return;
    const std::chrono::duration<double> share(static_cast<double>(bytes) /
                                              static_cast<double>(config_.limits.bytes_per_second));
    next_block_ =
        std::max(next_block_, Clock::now()) + std::chrono::duration_cast<Clock::duration>(share);
    Lock lock(state_->mutex);
    waitFor(lock, next_block_, [] { return false; });
}

/// At most one report waits for the executor; it tells the latest.
void DownloadWorker::report() {
    const auto now = meter_.report(sink_->have().offset, sink_->have().total);
    if (!now) return;
    bool waits = false;
    state_->set([&] { waits = std::exchange(state_->progress, now).has_value(); });
    if (waits) return;
    state_->post([state = state_.get()](const DownloadCallbacks& callbacks) {
        std::optional<DownloadProgress> progress;
        state->set([&] { progress.swap(state->progress); });
        if (progress && callbacks.on_progress) callbacks.on_progress(*progress);
    });
}

}  // namespace zel::http
