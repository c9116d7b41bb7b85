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

/// One log line that is being written. It collects text through `<<`, and its destructor passes the
/// line to the receiver. Without a receiver, that is, when the level is off, it formats nothing.
/// Texts are not changed; numbers are decimal and without thousands separators. Only one thread may
/// use it at a time.
class StreamProxy {
public:
    /// Receives the complete line.
    using Emit = std::function<void(const std::string& line)>;

    StreamProxy() = default;
    /// With an empty `receiver` there is none.
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

/// Where log lines go. Any thread may call any operation. Formats are printf-style. A debug line
/// has a level: 1 is the most important, 9 the most detailed. Every implementation must:
/// - write `critical`, `error` and `infoStream` lines always, and debug lines if their level is on;
/// - when a level is on, have all lower levels on, too;
/// - write one line for each call, or for each object that a `...Stream` has returned, with its
///   bytes unchanged.
class ORU_EXPORT Logger {
public:
    /// @{
    /// Writes a line of the importance that the name says.
    virtual void critical(std::string_view format, Arguments args) = 0;
    virtual void error(std::string_view format, Arguments args) = 0;
    virtual void debug(int level, std::string_view format, Arguments args) = 0;
    /// @}
    virtual bool isDebugEnabled(int level) const = 0;  ///< whether such lines are written
    /// Begins a line that is always written. The line ends when the returned object is destroyed.
    virtual detail::StreamProxy infoStream() = 0;
    /// Begins a debug line. When its level is off, the returned object has no receiver.
    virtual detail::StreamProxy debugStream(int level) = 0;

    Logger() = default;
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;
    virtual ~Logger() = default;
};

/// The logger of that name. It is made at the first call, and exists until the process ends.
/// Call it on any thread.
ORU_EXPORT Logger& getLogger(const std::string& name);

}  // namespace logging
