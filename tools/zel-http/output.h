#pragma once

#include <string>
#include <variant>

#include "zel_http/download.h"

namespace tool {

/// Whether what is written to `path` makes a regular file, or replaces one.
bool isReplaced(const std::string& path);

/// Where the body of a download goes: a regular file is replaced when the body is whole, standard
/// output ("-") and other kinds of file, such as devices and pipes, are written directly.
class Output {
public:
    /// With `continues`, what an interrupted download has left of a regular file is kept. Throws
    /// `std::system_error` when the file cannot be written.
    Output(const std::string& path, bool continues);
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    ~Output();

    const zel::http::DownloadSink& sink() const { return sink_; }
    /// Whether it is a regular file.
    bool isReplaced() const { return std::holds_alternative<zel::http::FileSink>(sink_); }

private:
    zel::http::DownloadSink sink_;
    int descriptor_ = -1;  ///< open for the sink's sake
};

}  // namespace tool
