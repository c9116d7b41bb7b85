// The tries of a download and the delays between them. The worker thread.

#include "Download/worker.h"

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

#include "Download/retry_rule.h"
#include "Download/transfer.h"
#include "Download/worker_waits.h"

namespace zel::http {
namespace {

DownloadFailure failureFor(Failure failure) {
    return failure == Failure::HttpErrorCode ? DownloadFailure::Status
                                             : static_cast<DownloadFailure>(failure);
}

/// Devices that start at the same time must not retry at the same time.
unsigned seed() {
    try {
        return std::random_device()();
    } catch (const std::exception&) {  // no descriptor is left
        return static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count());
    }
}

bool isGet(Method method) { return method == Method::GET || method == Method::GET_SYNC; }

}  // namespace

DownloadWorker::DownloadWorker(std::shared_ptr<DownloadState> state)
    : state_(std::move(state)),
      config_(state_->config),
      whole_(config_.limits.whole.count() > 0
                 ? Deadline(Clock::now() + bounded(config_.limits.whole))
                 : std::nullopt),
      meter_(bounded(config_.progress_interval)),
      random_(seed()) {}

void DownloadWorker::run() {
    try {
        download();
    } catch (const Cancelled&) {
        return dropTransfer();
    } catch (const Fault& fault) {
        return fail(fault);
    } catch (const std::exception& error) {  // memory
        return fail({DownloadFailure::Sink, error.what()});
    }
    complete();
}

/// The body is whole and has its name: memory that runs out must not make a failure of it.
void DownloadWorker::complete() {
    result_->head = std::move(head_);
    result_->bytes = sink_->have().offset;
    result_->retries = retries_;
    result_->facts = takeFacts();
    sink_.reset();
    const auto tell = [result = result_](const auto& callbacks) { callbacks.on_complete(*result); };
    try {
        state_->postOutcome(tell);
    } catch (const std::bad_alloc&) {
        state_->postOutcome(tell);  // there may be memory again
    }
}

TransferFacts DownloadWorker::takeFacts() {
    const std::lock_guard lock(state_->mutex);
    return state_->end ? std::move(state_->end->facts) : TransferFacts();
}

/// Closes the sink before the outcome is told: the host may start the next download then.
void DownloadWorker::fail(const Fault& fault) {
    dropTransfer();
    const DownloadError error{fault.failure, head_.status, sink_ ? sink_->have().offset : 0,
                              fault.what(), std::move(facts_)};
    sink_.reset();
    state_->logger.debug(1, "download failed: %s", logging::arguments(error.message));
    state_->postOutcome([error](const auto& callbacks) { callbacks.on_error(error); });
}

void DownloadWorker::download() {
    result_ = std::make_shared<DownloadResult>();
    sink_ = makeSink(
        config_, [this](const char* data, std::size_t size) { offer(data, size); },
        [this](int descriptor) { awaitRoom(descriptor); }, [this] { goOn(); });
    tryUntilWhole();
    sink_->finish();
}

void DownloadWorker::tryUntilWhole() {
    while (true) {
        try {
            const auto fault = tryOnce();
            if (!fault) return;
            dropTransfer();
            if (!mayRetry(*fault)) throw Fault(*fault);
            delayRetry(*fault);
        } catch (const StartsOver&) {
            dropTransfer();
            if (starts_over_++ > config_.retry.most_retries) {
                throw Fault(DownloadFailure::Changed, "the server's version changes all the time");
            }
            sink_->drop();
        }
    }
}

std::optional<Fault> DownloadWorker::tryOnce() {
    try {
        startTransfer();
        awaitHead();
        decide();
        takeBody();
        checkEnd();
        return std::nullopt;
    } catch (const Fault& fault) {
        return fault;
    }
}

void DownloadWorker::startTransfer() {
    {
        Lock lock(state_->mutex);
        waitWhilePaused(lock);
    }
    meter_.restart(sink_->have().offset);
    last_byte_ = Clock::now();
    head_ = {};
    facts_ = {};
    const auto transfer = std::make_shared<Transfer>(state_, state_->current, sink_->have());
    state_->set([&] { state_->transfer = transfer; });
    transfer->runRequest();
}

/// From here on the state ignores what the transfer tells.
void DownloadWorker::dropTransfer() {
    std::shared_ptr<Transfer> former;
    {
        const std::lock_guard lock(state_->mutex);
        former = state_->transfer.lock();
        state_->transfer.reset();
        ++state_->current;
        if (state_->end) facts_ = std::move(state_->end->facts);
        state_->head.reset();
        state_->end.reset();
        state_->blocks.drop();
        state_->held = false;
        state_->waiting_sink = nullptr;
    }
    try {
        if (former) former->tryToCancelRequest();
    } catch (const std::bad_alloc&) {  // it runs on, unheard
    }
}

bool DownloadWorker::mayRetry(const Fault& fault) const {
    const Resumable& have = sink_->have();
    const bool continues = have.offset == 0 || have.validator.kind != Validator::Kind::None;
    return fault.passing && isGet(config_.request.method) &&
           retries_ < config_.retry.most_retries && (continues || sink_->startsOver());
}

void DownloadWorker::delayRetry(const Fault& fault) {
    ++retries_;
    const double share = std::uniform_real_distribution<double>(0, 1)(random_);
    const auto delay = delayBefore(retries_, config_.retry, share, fault.retry_after);
    const auto until = Clock::now() + delay;
    if (whole_ && until >= *whole_) throw Fault(fault);  // it could only run out of time
    state_->logger.debug(1, "download: %s; retry %u in %d ms",
                         logging::arguments(std::string(fault.what()), retries_,
                                            static_cast<long long>(delay.count())));
    const DownloadRetry retry{retries_, delay, fault.what()};
    state_->post([retry](const auto& callbacks) {
        if (callbacks.on_retry) callbacks.on_retry(retry);
    });
    Lock lock(state_->mutex);
    waitFor(lock, until, [] { return false; });
}

void DownloadWorker::checkEnd() {
    TransferEnd end;
    {
        const std::lock_guard lock(state_->mutex);
        end = *state_->end;
    }
    if (end.kind == TransferEnd::Kind::Gone) {
        throw Fault(DownloadFailure::NoEngine, "there is no engine");
    }
    if (end.kind == TransferEnd::Kind::Failed) {
        throw Fault(failureFor(end.failure), end.text, mayPass(end.failure, end.text));
    }
    const Resumable& have = sink_->have();
    if (have.total && *have.total != have.offset) {
        throw Fault(DownloadFailure::ProtocolFailure, "the body was cut", true);
    }
}

}  // namespace zel::http
