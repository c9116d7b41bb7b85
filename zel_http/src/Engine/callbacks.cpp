// libcurl's callbacks. Each finds its task by the easy handle and makes one call. No exception
// passes through libcurl's C frames: the failure is recorded in the task, and the callback returns
// libcurl's failure value. Engine thread; reads `tasks`.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <type_traits>

#include "Engine/active_task.h"
#include "Engine/easy_options.h"
#include "Engine/facts.h"
#include "Engine/statistics.h"
#include "Engine/tls_isolation.h"
#include "Engine/tls_truncation.h"
#include "Records/header_line.h"
#include "zel_http/engine.h"

namespace zel::http {

long lastProgressReport = 0;

namespace {

static_assert(std::is_convertible_v<decltype(&Engine::writeFunction), curl_write_callback>);
static_assert(std::is_convertible_v<decltype(&Engine::writeHeader), curl_write_callback>);
static_assert(std::is_convertible_v<decltype(&Engine::putReadFunc), curl_read_callback>);
static_assert(std::is_convertible_v<decltype(&Engine::putSeekFunc), curl_seek_callback>);
static_assert(std::is_convertible_v<decltype(&Engine::downloadProgress), curl_xferinfo_callback>);

constexpr double seconds_between_reports = 3.0;

/// Limits for the header lines of all responses of a transfer, trailers included. A server can
/// choose names whose hashes collide, and collecting n of them in a `HeaderMap` takes n²
/// comparisons: within these limits less than 50 ms.
constexpr std::size_t most_header_fields = 500;
constexpr std::size_t most_header_bytes = std::size_t{256} * 1024;

/// Whether a response ends its header block with a declared length above `max_download_size`.
/// Makes every libcurl judge by the declared length of each response, as 7.88 does: from 8.4 on it
/// counts an undeclared body, too, and 8.14 takes intermediate responses of any length.
bool declaresTooMuch(const Engine::ActiveTask& task, LineKind kind) {
    const std::int32_t limit = task.request->config.max_download_size;
    if (limit <= 0) return false;
    if (kind == LineKind::Status) setLong<CURLOPT_MAXFILESIZE>(task.curl, limit);
    if (kind != LineKind::End) return false;
    curl_off_t length = -1;
    curl_easy_getinfo(task.curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    if (length < 0) setLong<CURLOPT_MAXFILESIZE>(task.curl, 0);
    return length > limit;
}

/// A byte count as the 32 bits that notifications take; the largest of them for a larger count.
template <typename Number>
unsigned saturated(Number bytes) {
    constexpr auto largest = std::numeric_limits<unsigned>::max();
    return bytes < static_cast<Number>(largest) ? static_cast<unsigned>(bytes) : largest;
}

/// Whether it is worth to ask libcurl for the body's length: inside a header block libcurl learns
/// it from one field alone, and (7.88) tells it only when the block has ended.
bool mayKnowLength(const Engine::ActiveTask& task, std::string_view line) {
    return task.lengthKnown || !task.inHeaderBlock || hasName(line, "content-length:");
}

}  // namespace

void Engine::reportCallbackFailure(const char* name, const char* what) noexcept {
    if (currentEngine == nullptr) return;
    try {
        currentEngine->logger->error("Engine::%s: %s", logging::arguments(name, what));
    } catch (...) {  // a logger's exception must not pass through libcurl either
    }
}

std::shared_ptr<Engine::ActiveTask> Engine::findTask(void* handle) {
    Engine* engine = currentEngine;
    if (engine == nullptr) return nullptr;
    engine->checkEngineThread();
    // Header lines and blocks of one transfer come one after another.
    if (engine->lastFound && engine->lastFound->curl == handle) return engine->lastFound;
    const auto found = engine->tasks.find(handle);
    if (found == engine->tasks.end()) return nullptr;
    engine->lastFound = found->second;
    return found->second;
}

/// Runs `work` on the handle's task. Without a task, or when `work` throws, the callback returns
/// `failed` and the transfer ends with `failure`.
template <typename Result, typename Work>
Result Engine::runCallback(const char* name, void* handle, CURLcode failure, Result failed,
                           Work work) noexcept {
    const auto task = findTask(handle);
    if (!task) {
        reportCallbackFailure(name, "no transfer has this handle");
        return failed;
    }
    try {
        return work(*task);
    } catch (const std::exception& error) {
        reportCallbackFailure(name, error.what());
    } catch (...) {
        reportCallbackFailure(name, "the request threw something that is no std::exception");
    }
    task->fail(failure);
    return failed;
}

std::size_t Engine::writeFunction(char* data, std::size_t size, std::size_t count,
                                  void* handle) noexcept {
    const auto work = [=](ActiveTask& task) -> std::size_t {
        const std::size_t bytes = size * count;
        if (!task.request || task.dropped) return bytes;
        // A paused transfer may still get blocks: libcurl reads on until the pause takes effect,
        // and 8.14 delivers what it holds. A refused block is delivered again after the resume.
        Engine& engine = *getEngine();
        if (engine.isPaused(task) || engine.hasHadItsShare(task)) return CURL_WRITEFUNC_PAUSE;
        engine.counters->bytes_received.add(bytes);
        try {
            task.request->notifyDataReceived(data, saturated(bytes));
        } catch (const std::runtime_error&) {  // a request throws it to end its transfer
            task.fail(CURLE_WRITE_ERROR);
            return 0;
        }
        return bytes;
    };
    return runCallback<std::size_t>("writeFunction", handle, CURLE_WRITE_ERROR, 0, work);
}

std::size_t Engine::writeHeader(char* data, std::size_t size, std::size_t count,
                                void* handle) noexcept {
    const auto work = [=](ActiveTask& task) {
        const std::size_t bytes = size * count;
        if (!task.request || task.dropped) return bytes;
        // After a pause there may be several lines in one call (libcurl 7.88).
        std::string_view lines(data, bytes);
        while (!lines.empty()) {
            const std::size_t newline = lines.find('\n');
            const std::size_t end = newline == std::string_view::npos ? lines.size() : newline + 1;
            const std::string_view line = lines.substr(0, end);
            takeHeaderLine(task, line);
            lines.remove_prefix(line.size());
        }
        return bytes;
    };
    return runCallback<std::size_t>("writeHeader", handle, CURLE_WRITE_ERROR, 0, work);
}

void Engine::takeHeaderLine(ActiveTask& task, std::string_view line) {
    const LineKind kind = kindOf(line);
    if (kind != LineKind::Field) task.inHeaderBlock = kind == LineKind::Status;
    if (kind == LineKind::Status) getEngine()->endConnectionWait(task.curl);
    task.headerBytes += line.size();
    if (kind == LineKind::Field) ++task.headerFields;
    if (task.headerFields > most_header_fields || task.headerBytes > most_header_bytes) {
        task.fail(CURLE_WEIRD_SERVER_REPLY);
        throw std::length_error("the answer has more than 500 header fields or 256 KiB of them");
    }
    if (declaresTooMuch(task, kind)) {
        task.fail(CURLE_FILESIZE_EXCEEDED);
        throw std::length_error("the declared length is above max_download_size");
    }
    watchForCloseNotify(task, line, kind);
    if (kind == LineKind::End && task.request->keepsFacts) noteTlsFacts(task);
    if (task.request->config.own_cert) dropClientCertificateOnCrossOrigin(task.curl, line);
    task.request->notifyHeader(line.data(), saturated(line.size()));
    if (!mayKnowLength(task, line)) return;
    double length = 0.0;
    curl_easy_getinfo(task.curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD, &length);
    task.lengthKnown = length > 0.0;
    if (task.lengthKnown) task.request->notifySize(saturated(length));
}

std::size_t Engine::putReadFunc(char* buffer, std::size_t size, std::size_t count,
                                void* handle) noexcept {
    const auto work = [=](ActiveTask& task) -> std::size_t {
        const std::string& body = task.request->config.body;
        if (task.readPosition >= body.size()) return 0;
        const std::size_t bytes = std::min(size * count, body.size() - task.readPosition);
        if (bytes > std::numeric_limits<std::uint32_t>::max() - task.readPosition) {
            throw std::length_error("a PUT body of 4 GiB or more is not supported");
        }
        body.copy(buffer, bytes, task.readPosition);
        task.readPosition += static_cast<std::uint32_t>(bytes);
        return bytes;
    };
    return runCallback<std::size_t>("putReadFunc", handle, CURLE_ABORTED_BY_CALLBACK,
                                    CURL_READFUNC_ABORT, work);
}

int Engine::putSeekFunc(void* handle, curl_off_t offset, int origin) noexcept {
    const auto work = [=](ActiveTask& task) -> int {
        const auto length = static_cast<curl_off_t>(task.request->config.body.size());
        if (origin != SEEK_SET || offset < 0 || offset > length) return CURL_SEEKFUNC_FAIL;
        task.readPosition = static_cast<std::uint32_t>(offset);
        return CURL_SEEKFUNC_OK;
    };
    return runCallback<int>("putSeekFunc", handle, CURLE_SEND_FAIL_REWIND, CURL_SEEKFUNC_FAIL,
                            work);
}

int Engine::downloadProgress(void* handle, curl_off_t downloadTotal, curl_off_t downloadNow,
                             curl_off_t /*uploadTotal*/, curl_off_t /*uploadNow*/) noexcept {
    double seconds = 0.0;
    curl_easy_getinfo(handle, CURLINFO_TOTAL_TIME, &seconds);
    const double since = seconds - static_cast<double>(lastProgressReport);
    if (downloadTotal < 1 || since < seconds_between_reports) return 0;
    lastProgressReport = static_cast<long>(seconds);
    const auto work = [=](ActiveTask& task) {
        if (task.request) {
            task.request->reportDownloadProgress(saturated(downloadTotal), saturated(downloadNow));
        }
        return 0;
    };
    return runCallback<int>("downloadProgress", handle, CURLE_ABORTED_BY_CALLBACK, 1, work);
}

bool Engine::allowsPayloadLogging(void* handle) noexcept {
    const auto task = findTask(handle);
    return !task || !task->request || task->request->allowsPayloadLogging();
}

}  // namespace zel::http
