#pragma once

#include <functional>
#include <locale>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>

#include "logging/arguments.h"
#include "oru/export.h"

namespace logging {

namespace detail {

/// One log line under construction: collects text through `<<` and emits it when destroyed.
/// A proxy without a receiver (its level is off) formats nothing. Texts go out byte for byte,
/// numbers in decimal without grouping. One thread at a time.
class StreamProxy {
public:
    /// Receives the complete line.
    using Emit = std::function<void(const std::string& line)>;

    StreamProxy() = default;
    /// An empty `receiver` counts as none.
    explicit StreamProxy(Emit receiver) : emit_(std::move(receiver)) {
        if (emit_) text_.emplace().imbue(std::locale::classic());
    }
    /// Leaves `other` without a receiver.
    StreamProxy(StreamProxy&& other) noexcept
        : emit_(std::exchange(other.emit_, nullptr)), text_(std::move(other.text_)) {}
    StreamProxy(const StreamProxy&) = delete;
    StreamProxy& operator=(const StreamProxy&) = delete;
    StreamProxy& operator=(StreamProxy&&) = delete;
    ~StreamProxy() {
        if (!emit_) return;
        try {
            emit_(text_->str());
        } catch (...) {  // a line that cannot be written is lost; a destructor must not throw
        }
    }

    /// Appends `value`.
    template <typename T>
    StreamProxy& operator<<(const T& value) {
        if (emit_) *text_ << value;
        return *this;
    }

private:
    Emit emit_;
    std::optional<std::ostringstream> text_;
};

}  // namespace detail

/// Where log lines go. Any thread may call any operation. Formats are printf-style. Debug lines
/// carry a level: 1 is the most important, 9 the most detailed. What any implementation must do:
/// - write `critical`, `error` and `infoStream` lines always, debug lines when their level is on;
/// - enable every level below one that is enabled;
/// - emit one line for each proxy or call, bytes unchanged.
class ORU_EXPORT Logger {
public:
    /// @{
    /// Writes a line of that importance.
    virtual void critical(std::string_view format, Arguments args) = 0;
    virtual void error(std::string_view format, Arguments args) = 0;
    virtual void debug(int level, std::string_view format, Arguments args) = 0;
    /// @}
    virtual bool isDebugEnabled(int level) const = 0;  ///< whether `debug` at `level` writes
    /// Begins a line at the logger's own fixed level.
    virtual detail::StreamProxy infoStream() = 0;
    /// Begins a debug line; a proxy without a receiver when its level is off.
    virtual detail::StreamProxy debugStream(int level) = 0;

    Logger() = default;
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;
    virtual ~Logger() = default;
};

/// The logger of that name, made at the first call and kept for the life of the process.
/// Any thread.
ORU_EXPORT Logger& getLogger(const std::string& name);

}  // namespace logging
