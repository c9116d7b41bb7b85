// The handle of a download, and its start. The executor's thread.

#include "zel_http/download.h"

#include <sys/eventfd.h>

#include <utility>

#include "Download/state.h"
#include "Download/worker.h"
#include "oru/assert.h"
#include "oru/thread.h"

namespace zel::http {

struct Download::Impl {
    std::shared_ptr<DownloadState> state;
    oru::thread worker;
};

Download::Download() noexcept = default;
Download::Download(std::unique_ptr<Impl> impl) noexcept : impl(std::move(impl)) {}
Download::Download(Download&& other) noexcept = default;

Download& Download::operator=(Download&& other) noexcept {
    Download former(std::move(other));  // the former content goes last: it may call back
    impl.swap(former.impl);
    return *this;
}

Download::~Download() { cancel(); }

void Download::cancel() noexcept {
    const auto former = std::move(impl);
    if (!former) return;
    DownloadState& state = *former->state;
    // Kept to the end: what the callbacks hold may call back when it is destroyed.
    const auto callbacks = std::exchange(state.callbacks, nullptr);
    state.set([&] { state.cancelled = true; });
    if (state.cancelled_descriptor >= 0) eventfd_write(state.cancelled_descriptor, 1);
    former->worker.join();
}

void Download::pause() {
    if (!impl) return;
    impl->state->set([this] { impl->state->paused = true; });
    impl->state->adjustTransfer();
}

void Download::resume() {
    if (!impl) return;
    impl->state->set([this] { impl->state->paused = false; });
    impl->state->adjustTransfer();
}

void Download::takeMore() {
    if (impl) impl->state->set([this] { impl->state->more = true; });
}

Download startDownload(oru::executor& executor, logging::Logger& logger, DownloadConfig config,
                       DownloadCallbacks callbacks) {
    ORU_ASSERT(callbacks.on_complete);
    ORU_ASSERT(callbacks.on_error);
    const auto* callable = std::get_if<CallableSink>(&config.sink);
    ORU_ASSERT(callable == nullptr || callable->take);
    auto impl = std::make_unique<Download::Impl>();
    impl->state =
        std::make_shared<DownloadState>(executor, logger, std::move(config), std::move(callbacks));
    oru::thread::attributes attributes;
    constexpr unsigned stack = 256 * 1024;
    attributes.set_stack_size(stack);
    auto work = std::make_unique<std::function<void()>>(
        [state = impl->state] { DownloadWorker(state).run(); });
    oru::thread::create_thread("download", attributes, impl->worker.id, work.release());
    return Download(std::move(impl));
}

}  // namespace zel::http
