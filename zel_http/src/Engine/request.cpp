// The base of every request: its control operations hand it to the engine, if there is one.

#include "zel_http/request.h"

#include "zel_http/engine.h"

namespace zel::http {

Request::Request() = default;
Request::Request(const RequestConfig& config) : config(config) {}
Request::~Request() = default;

void Request::runRequest() {
    if (!Engine::hasEngine()) return;
    Engine::getEngine()->addNewRequest(shared_from_this());
    // A pause from before the start found no transfer to act on.
    if (paused) Engine::getEngine()->pauseRequest(shared_from_this());
}

void Request::tryToCancelRequest() {
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
