#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "zel_http/request.h"

namespace tool {

/// Names and values of header fields, in the order of the message.
using Fields = std::vector<std::pair<std::string, std::string>>;

/// A request whose answer is held in memory. The FSM context is the loop's thread.
class Exchange final : public zel::http::Request {
public:
    struct Limits {
        bool keeps_body;           ///< otherwise it is counted and dropped
        std::uint64_t most_bytes;  ///< of the body; 0 for no limit
    };
    /// `done` is called once on the loop's thread, unless the exchange is cancelled.
    Exchange(const zel::http::RequestConfig& config, Limits limits, std::function<void()> done);

    // Loop's thread. The results are there once `done` is called.
    void start() override { runRequest(); }
    void cancel();
    /// The status; 0 without an answer.
    unsigned status() const { return status_; }
    /// @{
    /// Of the final response. Head and trailers are as they came.
    std::string& head() { return head_; }
    std::string& trailers() { return trailers_; }
    const Fields& fields() const { return fields_; }
    /// @}
    std::string& body() { return body_; }
    std::uint64_t bodySize() const { return body_size_; }
    /// The failure's name and text; empty when there is a whole answer, whatever its status.
    const std::string& failure() const { return failure_; }
    const std::string& message() const { return message_; }
    bool isTooLarge() const { return limits_.most_bytes != 0 && body_size_ > limits_.most_bytes; }

    // Engine thread.
    void notifyDataReceived(const char* data, unsigned length) override;
    void notifyHeader(const char* line, unsigned length) override;

    // Loop's thread.
    void notifyDataEnd() override;
    void notifyFailure(zel::http::Failure failure, const char* text) override;

private:
    void finish();

    const Limits limits_;
    std::function<void()> done_;
    unsigned status_ = 0;
    std::string failure_;
    std::string message_;
    // The engine thread writes these until the outcome.
    std::string head_;
    std::string trailers_;
    Fields fields_;
    bool head_ended_ = false;
    std::string body_;
    std::uint64_t body_size_ = 0;
};

}  // namespace tool
