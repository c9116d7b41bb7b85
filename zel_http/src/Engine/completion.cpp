// Turns a finished transfer into its outcome; nothing else notifies a request of its end. Engine
// thread up to the hand-over to the FSM runner, then the FSM context; touches `tasks`.

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Engine/active_task.h"
#include "Engine/completion_rules.h"
#include "Engine/facts.h"
#include "Engine/statistics.h"
#include "Engine/tls_isolation.h"
#include "Engine/tls_truncation.h"
#include "Engine/wire_text.h"
#include "oru/assert.h"
#include "zel_http/engine.h"

namespace zel::http {

namespace {

/// Whether the server ended the stream, or the connection, without reading the body.
bool isRefusedUpload(CURLcode code) {
    return code == CURLE_HTTP2_STREAM || code == CURLE_SEND_ERROR;
}

/// Whether an error response (status 400 and above) has arrived with its full declared length.
bool hasWholeAnswer(const Engine::ActiveTask& task) {
    long status = 0;
    curl_off_t declared = -1;
    curl_off_t received = 0;
    curl_easy_getinfo(task.curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(task.curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &declared);
    curl_easy_getinfo(task.curl, CURLINFO_SIZE_DOWNLOAD_T, &received);
    return status >= 400 && !task.inHeaderBlock && declared == received;
}

}  // namespace

CURLMsg* Engine::findCompletedMsg() {
    int remaining = 0;
    CURLMsg* message = curl_multi_info_read(multiHandle, &remaining);
    while (message != nullptr && message->msg != CURLMSG_DONE) {
        message = curl_multi_info_read(multiHandle, &remaining);
    }
    return message;
}

/// libcurl's code with corrections: a failure that the task has recorded overrides it, a body or
/// header block that was cut is no success, and an upload that the server refused is no failure if
/// its error response is complete.
CURLcode Engine::resultOf(const ActiveTask& task, CURLcode reported) {
    if (task.failure != CURLE_OK) return task.failure;
    if (isRefusedUpload(reported) && hasWholeAnswer(task)) return CURLE_OK;
    const bool cut = task.inHeaderBlock || task.endAwaited != nullptr;
    return reported == CURLE_OK && cut ? CURLE_PARTIAL_FILE : reported;
}

void Engine::processCompletedTasks() {
    checkEngineThread();
    trace("processCompletedTasks");
    while (const CURLMsg* message = findCompletedMsg()) {
        const CURLcode reported = message->data.result;  // freed when the handle is detached
        finishTask(tasks.at(message->easy_handle), reported);
    }
}

/// Ends transfers with which libcurl cannot go on since memory ran out: those that it could not
/// pause or resume, and those whose TLS connection OpenSSL has given up. There libcurl (7.88)
/// retries the read for ever, in passes without a wait, so that checking every 256th suffices.
void Engine::endBrokenTransfers() {
    constexpr unsigned long passes_between_checks = 256;
    const bool checksTls = pass % passes_between_checks == 0;
    if (!checksTls && !hasFailedPauses) return;
    std::vector<std::shared_ptr<ActiveTask>> broken;
    for (const auto& [handle, task] : tasks) {
        if (task->pauseFailed || (checksTls && hasBrokenTls(handle))) broken.push_back(task);
    }
    hasFailedPauses = false;
    for (const auto& task : broken) {
        if (findTask(task->curl) == task) finishTask(task, CURLE_OUT_OF_MEMORY);
    }
}

/// Every outcome passes through here: of transfers that libcurl has finished, and of those that
/// failed before they could start.
void Engine::finishTask(std::shared_ptr<ActiveTask> task, CURLcode reported) {
    unregisterTask(*task);
    if (const auto request = task->request) {
        edgeCookieCheck(*task);
        const CURLcode result = resultOf(*task, reported);
        if (task->ownTlsConfig) tlsIsolation->noteResult(request->config, result);
        long httpCode = -1;
        const CURLcode ret = curl_easy_getinfo(task->curl, CURLINFO_RESPONSE_CODE, &httpCode);
        ORU_ASSERT(ret == CURLE_OK);
        long connections = 0;
        curl_easy_getinfo(task->curl, CURLINFO_NUM_CONNECTS, &connections);
        if (httpCode > 0 && connections == 0) counters->connections_reused.add(1);
        long connectCode = -1;
        curl_easy_getinfo(task->curl, CURLINFO_HTTP_CONNECTCODE, &connectCode);
        if (connectCode == 0 && !request->fallbackProxies.empty()) {
            retry(request);
        } else {
            if (request->keepsFacts) {
                request->transferFacts = std::make_unique<TransferFacts>(factsOf(*task, result));
            }
            task->counted.reset();
            handOver(*task, result, httpCode);
        }
    }
    doCurlCleanup(task);
}

void Engine::retry(std::shared_ptr<Request> request) {
    logger->debug(8, "Engine::%s: Retry with another proxy",
                  logging::arguments("processCompletedTasks"));
    const std::string proxy = std::move(request->fallbackProxies.front());
    request->fallbackProxies.pop_front();
    addTask(std::move(request), proxy);
}

void Engine::handOver(const ActiveTask& task, CURLcode result, long httpCode) {
    fsmRunner([logger = logger, request = task.request, result, httpCode, reason = reasonOf(task)] {
        runCallbackHandlerInFsmContext(logger, request, result, httpCode, reason);
    });
}

void Engine::runCallbackHandlerInFsmContext(logging::Logger* logger,
                                            std::shared_ptr<Request> request, CURLcode result,
                                            long httpCode, const std::string& reason) {
    logger->debug(
        8, "Engine::%s: res=%d, http_code=%ld",
        logging::arguments("runCallbackHandlerInFsmContext", static_cast<int>(result), httpCode));
    const unsigned status = protocol::valid_status(httpCode) ? static_cast<unsigned>(httpCode) : 0;
    request->setResponseCode(status);
    if (result != CURLE_OK) {
        const char* text = curl_easy_strerror(result);
        const std::string url = printable(request->config.url);
        const std::string detail = reason.empty() ? reason : ": " + reason;
        logger->error("HTTPClientCurl error (%s): %d '%s'%s",
                      logging::arguments(url, static_cast<int>(result), text, detail));
        request->notifyFailure(failureOf(result), text);
    } else if (protocol::success_status(status)) {
        request->notifyDataEnd();
    } else {
        logger->debug(1, "zel-http received HTTP status '%d'", logging::arguments(status));
        const std::string text = "HTTP code=" + std::to_string(status);
        request->notifyFailure(failureOf(status), text.c_str());
    }
}

}  // namespace zel::http
