// From a finished transfer to its outcome: the only place where a transfer's end reaches its
// request. Engine thread up to the hand-over, then the FSM context; touches `tasks`.

#include <string>
#include <utility>

#include "Engine/active_task.h"
#include "Engine/completion_rules.h"
#include "oru/assert.h"
#include "zel_http/engine.h"

namespace zel::http {

CURLMsg* Engine::findCompletedMsg() {
    int remaining = 0;
    CURLMsg* message = curl_multi_info_read(multiHandle, &remaining);
    while (message != nullptr && message->msg != CURLMSG_DONE) {
        message = curl_multi_info_read(multiHandle, &remaining);
    }
    return message;
}

/// What the transfer came to: libcurl's word, unless the task knows of a failure that it missed.
CURLcode Engine::resultOf(const ActiveTask& task, CURLcode reported) {
    if (task.callbackFailure != CURLE_OK) return task.callbackFailure;
    return reported == CURLE_OK && task.headersOpen ? CURLE_PARTIAL_FILE : reported;
}

void Engine::processCompletedTasks() {
    checkEngineThread();
    trace("processCompletedTasks");
    while (const CURLMsg* message = findCompletedMsg()) {
        const CURLcode reported = message->data.result;  // gone once the handle is detached
        const auto task = tasks.at(message->easy_handle);
        unregisterTask(*task);
        if (const auto request = task->request) {
            edgeCookieCheck(*task);
            const CURLcode result = resultOf(*task, reported);
            long httpCode = -1;
            const CURLcode ret = curl_easy_getinfo(task->curl, CURLINFO_RESPONSE_CODE, &httpCode);
            ORU_ASSERT(ret == CURLE_OK);
            long connectCode = -1;
            curl_easy_getinfo(task->curl, CURLINFO_HTTP_CONNECTCODE, &connectCode);
            if (connectCode == 0 && !request->fallbackProxies.empty()) {
                retry(*task);
            } else {
                --request->transfers;
                handOver(request, result, httpCode);
            }
        }
        doCurlCleanup(task);
    }
}

void Engine::retry(const ActiveTask& finished) {
    logger->debug(8, "Engine::%s: Retry with another proxy",
                  fmt::make_printf_args("processCompletedTasks"));
    const std::string proxy = std::move(finished.request->fallbackProxies.front());
    finished.request->fallbackProxies.pop_front();
    addTask(finished.request, proxy);
    --finished.request->transfers;  // now that the next one counts
    if (finished.paused) pauseTask(finished.request);
}

void Engine::handOver(std::shared_ptr<Request> request, CURLcode result, long httpCode) {
    fsmRunner([logger = logger, request = std::move(request), result, httpCode] {
        runCallbackHandlerInFsmContext(logger, request, result, httpCode);
    });
}

void Engine::runCallbackHandlerInFsmContext(logging::Logger* logger,
                                            std::shared_ptr<Request> request, CURLcode result,
                                            long httpCode) {
    logger->debug(8, "Engine::%s: res=%d, http_code=%ld",
                  fmt::make_printf_args("runCallbackHandlerInFsmContext", static_cast<int>(result),
                                        httpCode));
    const unsigned status = protocol::valid_status(httpCode) ? static_cast<unsigned>(httpCode) : 0;
    request->setResponseCode(status);
    if (result != CURLE_OK) {
        const char* text = curl_easy_strerror(result);
        logger->error("HTTPClientCurl error (%s): %d '%s'",
                      fmt::make_printf_args(request->config.url, static_cast<int>(result), text));
        request->notifyFailure(failureOf(result), text);
    } else if (protocol::success_status(status)) {
        request->notifyDataEnd();
    } else {
        logger->debug(1, "zel-http received HTTP status '%d'", fmt::make_printf_args(status));
        const std::string text = "HTTP code=" + std::to_string(status);
        request->notifyFailure(failureOf(status), text.c_str());
    }
}

}  // namespace zel::http
