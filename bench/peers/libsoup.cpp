// libsoup 3, asynchronous, in a GLib main loop.

#include <libsoup/soup.h>

#include <memory>

#include "load.h"

namespace {

struct Request {
    bench::Load& load;
    GMainLoop* loop;
    std::size_t id;
    SoupMessage* message;
};

void onAnswer(GObject* session, GAsyncResult* result, gpointer data) {
    const std::unique_ptr<Request> request(static_cast<Request*>(data));
    GBytes* body = soup_session_send_and_read_finish(SOUP_SESSION(session), result, nullptr);
    const long status = body != nullptr ? soup_message_get_status(request->message) : 0;
    const std::size_t size = body != nullptr ? g_bytes_get_size(body) : 0;
    g_clear_pointer(&body, g_bytes_unref);
    g_object_unref(request->message);
    request->load.finished(request->id, status, size);
    if (request->load.over()) g_main_loop_quit(request->loop);
}

SoupSession* makeSession(const bench::Work& work) {
    const int connections = static_cast<int>(work.in_flight + work.waiting);
    SoupSession* session = soup_session_new_with_options(
        "max-conns", connections, "max-conns-per-host", connections, nullptr);
    if (!work.ca_file.empty()) {
        GTlsDatabase* authorities = g_tls_file_database_new(work.ca_file.c_str(), nullptr);
        soup_session_set_tls_database(session, authorities);
        g_object_unref(authorities);
    }
    return session;
}

}  // namespace

int main(int argc, char** argv) {
    bench::Load load("libsoup", argc, argv);
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    SoupSession* session = makeSession(load.work());
    GBytes* body = g_bytes_new_static(load.body().data(), load.body().size());
    load.begin([&](std::size_t id, const std::string& url) {
        SoupMessage* message = soup_message_new(load.work().method.c_str(), url.c_str());
        if (load.work().method != "GET") {
            soup_message_set_request_body_from_bytes(message, "application/octet-stream", body);
        }
        auto request = std::make_unique<Request>(Request{load, loop, id, message});
        soup_session_send_and_read_async(session, message, G_PRIORITY_DEFAULT, nullptr, onAnswer,
                                         request.release());
    });
    g_main_loop_run(loop);
    std::_Exit(load.report());
}
