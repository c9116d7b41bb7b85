// Qt 6, QNetworkAccessManager in a core application.

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <cstdlib>

#include "load.h"

int main(int argc, char** argv) {
    bench::Load load("qt", argc, argv);
    int no_arguments = 1;
    QCoreApplication application(no_arguments, argv);
    QNetworkAccessManager manager;
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    if (!load.work().ca_file.empty()) {
        tls.setCaCertificates(
            QSslCertificate::fromPath(QString::fromStdString(load.work().ca_file)));
    }
    const QByteArray body = QByteArray::fromStdString(load.body());
    load.begin([&](std::size_t id, const std::string& url) {
        QNetworkRequest request(QUrl(QString::fromStdString(url)));
        request.setSslConfiguration(tls);
        request.setHeader(QNetworkRequest::ContentTypeHeader, "application/octet-stream");
        QNetworkReply* reply = load.work().method == "GET"    ? manager.get(request)
                               : load.work().method == "POST" ? manager.post(request, body)
                                                              : manager.put(request, body);
        QObject::connect(reply, &QNetworkReply::finished, [&, id, reply] {
            const auto status =
                reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toLongLong();
            const auto size = static_cast<std::size_t>(reply->readAll().size());
            reply->deleteLater();
            load.finished(id, static_cast<long>(status), size);
            if (load.over()) application.quit();
        });
    });
    QCoreApplication::exec();
    std::_Exit(load.report());
}
