// A request from a program with a GLib main loop, such as a GTK application or a D-Bus service. The
// callbacks run on the loop's thread, between the program's own sources.

#include <glib-unix.h>

#include <csignal>
#include <iostream>

#include "logging/logger.h"
#include "oru/glib_executor.h"
#include "zel_http/client.h"
#include "zel_http/engine.h"

namespace {

gboolean quit(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_CONTINUE;
}

void fetch(GMainLoop* loop, const std::string& url) {
    oru::glib_executor executor;  // the default context, which the loop runs
    auto& logger = logging::getLogger("app");
    zel::http::Engine engine([&](const auto& outcome) { executor.post(outcome, 0); }, &logger);
    const auto client = zel::http::createClient(executor, logger);

    zel::http::RequestConfig config;
    config.url = url;
    const auto handle = client->start_request(
        config, {},
        [&](const zel::http::ResponseData& response) {
            std::cout << response.status << ", " << response.body.size() << " bytes\n";
            g_main_loop_quit(loop);
        },
        [&](const zel::http::ErrorData& error) {
            std::cout << error.message << '\n';
            g_main_loop_quit(loop);
        });
    g_main_loop_run(loop);
}  // in this order: the handle, which cancels what is left, the client, the engine, the executor

}  // namespace

int main(int argc, char** argv) {
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(SIGINT, quit, loop);
    fetch(loop, argc > 1 ? argv[1] : "http://localhost/");
    g_main_loop_unref(loop);
}
