// The request of one try. Engine thread up to the outcome, which comes in the FSM context.

#include "Download/transfer.h"

#include <string_view>
#include <utility>

#include "Download/sink.h"
#include "Records/header_line.h"

namespace zel::http {

Transfer::Transfer(std::shared_ptr<DownloadState> state, unsigned number, const Resumable& have)
    : Request(state->config.request), state_(std::move(state)), number_(number) {
    config.max_download_size = -1;  // 32 bits are too few; the worker counts
    config.headers.erase("Range");
    config.headers.erase("If-Range");
    if (have.offset == 0 || have.validator.kind == Validator::Kind::None) return;
    config.headers["Range"] = "bytes=" + std::to_string(have.offset) + "-";
    config.headers["If-Range"] = have.validator.value;
}

Transfer::~Transfer() { tellEnd({}); }

void Transfer::adjust() {
    bool hold = false;
    {
        const std::lock_guard lock(state_->mutex);
        if (state_->current != number_) return;
        hold = state_->paused || state_->blocks.full();
        state_->held = hold;
    }
    if (hold) {
        pauseRequest();
    } else {
        resumeRequest();
    }
}

void Transfer::notifyHeader(const char* line, unsigned length) {
    if (head_told_) return;  // a trailer
    const std::string_view text(line, length);
    if (isStatusLine(text)) {  // of the last response, once redirects are over
        head_.headers.clear();
        head_.fields.clear();
        const auto status = parseNumber(text.substr(text.find(' ') + 1, 3));
        head_.status = static_cast<std::uint32_t>(status.value_or(0));
    } else if (const auto field = splitHeaderLine(text)) {
        head_.headers.emplace(field->name, field->value);
        head_.fields.emplace_back(field->name, field->value);
    }
}

/// With the lock.
void Transfer::tellHead() {
    if (std::exchange(head_told_, true)) return;
    head_.total = totalOf(head_);
    state_->head = std::move(head_);
}

void Transfer::notifyDataReceived(const char* data, unsigned length) {
    bool wakes = false;
    bool full = false;
    {
        const std::lock_guard lock(state_->mutex);
        if (state_->current != number_) return;
        wakes = !head_told_;
        tellHead();
        BlockQueue& blocks = state_->blocks;
        const bool first = blocks.empty();
        const std::size_t written = first ? state_->writeEagerly({data, length}) : 0;
        if (written == length) return;
        const bool was_ready = blocks.ready();
        blocks.append(data + written, length - written);
        if (first && (state_->waiting_sink == nullptr || state_->waiting_sink->eager()))
            wakes = true;
        if (blocks.ready() && !was_ready) wakes = true;
        full = blocks.full();
    }
    if (wakes) state_->changed.notify_all();
    if (full) adjust();
}

void Transfer::notifyDataEnd() { tellEnd({TransferEnd::Kind::Complete, {}, {}, facts()}); }

void Transfer::notifyFailure(Failure failure, const char* text) {
    const bool answered =
        failure == Failure::HttpErrorCode || failure == Failure::AuthenticationFailure;
    tellEnd({answered ? TransferEnd::Kind::Complete : TransferEnd::Kind::Failed, failure, text,
             facts()});
}

void Transfer::tellEnd(TransferEnd end) {
    state_->set([&] {
        if (state_->current != number_ || state_->end) return;
        end.status = head_.status;
        if (end.kind == TransferEnd::Kind::Complete) tellHead();
        state_->end = std::move(end);
    });
}

}  // namespace zel::http
