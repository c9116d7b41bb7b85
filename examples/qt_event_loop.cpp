// A request from a Qt program. The callbacks run on the thread of the event loop, where widgets and
// other objects of that thread may be touched.

#include <QCoreApplication>
#include <QTextStream>

#include "logging/logger.h"
#include "oru/qt_executor.h"
#include "zel_http/client.h"
#include "zel_http/engine.h"

int main(int argc, char** argv) {
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    QTextStream out(stdout);

    oru::qt_executor executor;  // the thread that makes it: here the main thread
    auto& logger = logging::getLogger("app");
    zel::http::Engine engine([&](const auto& outcome) { executor.post(outcome, 0); }, &logger);
    const auto client = zel::http::createClient(executor, logger);

    zel::http::RequestConfig config;
    config.url = arguments.value(1, "http://localhost/").toStdString();
    const auto handle = client->start_request(  // a member of the window that shows the answer
        config, {},
        [&](const zel::http::ResponseData& response) {
            out << response.status << ", " << response.body.size() << " bytes\n";
            QCoreApplication::quit();
        },
        [&](const zel::http::ErrorData& error) {
            out << QString::fromStdString(error.message) << '\n';
            QCoreApplication::exit(1);
        });
    return QCoreApplication::exec();
}
