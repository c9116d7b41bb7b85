#pragma once

#include <memory>

#include "Download/resume_rule.h"
#include "Download/state.h"
#include "zel_http/request.h"

namespace zel::http {

/// One try: brings the head, the body and the end of a response to the worker. Pauses while no
/// block has room or the host wants it.
class Transfer final : public Request {
public:
    /// `number` is the state's `current` for this try. Asks for what is missing beyond `have`.
    Transfer(std::shared_ptr<DownloadState> state, unsigned number, const Resumable& have);
    ~Transfer() override;
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    /// Pauses or resumes as the state demands. Engine thread.
    void adjust();

    // Engine thread.
    void notifyHeader(const char* line, unsigned length) override;
    void notifyDataReceived(const char* data, unsigned length) override;
    // FSM context.
    void notifyDataEnd() override;
    void notifyFailure(Failure failure, const char* text) override;
    void start() override {}

private:
    void tellHead();
    void tellEnd(TransferEnd end);

    const std::shared_ptr<DownloadState> state_;
    const unsigned number_;
    // Engine thread, then the FSM context.
    DownloadHead head_;
    bool head_told_ = false;
};

}  // namespace zel::http
