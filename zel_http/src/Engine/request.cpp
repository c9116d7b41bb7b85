// The base of every request: its control operations hand it to the engine, if there is one.

#include "zel_http/request.h"

#include "zel_http/engine.h"

namespace zel::http {

Request::Request() = default;
Request::Request(const RequestConfig& config) : config(config) {}
Request::~Request() = default;

void Request::runRequest() {
    if (!Engine::hasEngine()) return;
    // Looked at before the start: from then on a notification may pause, on the engine thread.
    const bool pausedBefore = paused;
    Engine::getEngine()->addNewRequest(shared_from_this());
    // A pause from before the start found no transfer to act on.
    if (pausedBefore) Engine::getEngine()->pauseRequest(shared_from_this());
}

void Request::tryToCancelRequest() {
    // Every finished request of a client asks, in the FSM context, where the engine may be on its
    // way out: without a transfer it is neither touched nor woken. An unowned one throws below.
    if (transfers == 0 && !weak_from_this().expired()) return;
    if (!Engine::hasEngine()) return;
    Engine::getEngine()->tryToCancelRequest(shared_from_this());
}

void Request::pauseRequest() {
    if (paused) return;
    paused = true;
    if (!Engine::hasEngine()) return;
    Engine::getEngine()->pauseRequest(shared_from_this());
}

void Request::resumeRequest() {
    if (!paused) return;
    paused = false;
    if (!Engine::hasEngine()) return;
    Engine::getEngine()->resumeRequest(shared_from_this());
}

void Request::notifyHeader(const char* /*line*/, unsigned /*length*/) {}
void Request::notifyAuthRetry() {}
void Request::notifySize(unsigned /*size*/) {}
std::string Request::xauthCookieDomain() const { return {}; }
void Request::reportDownloadProgress(unsigned /*total*/, unsigned /*now*/) {}

}  // namespace zel::http
