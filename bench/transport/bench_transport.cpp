// The host's network access manager alone: posts the envelopes DIR/0.xml .. DIR/N-1.xml one
// after another, as the plug-in does, and prints the wall time. Set beside tav-host and curl on
// the same link it separates what the transport costs from what the plug-in does per product.
// usage: bench_transport URL DIR N [CA-PEM]

#include "tavcore/NetworkAccessManager.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QNetworkReply>
#include <QSslConfiguration>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc < 4) {
        std::fprintf(stderr, "usage: bench_transport URL DIR N [CA-PEM]\n");
        return 64;
    }
    if (argc > 4) {
        QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
        tls.addCaCertificates(QString::fromLocal8Bit(argv[4]));
        QSslConfiguration::setDefaultConfiguration(tls);
    }
    auto* manager = TavCoreShared::Network::NetworkAccessManager::instance();
    const int count = QByteArray(argv[3]).toInt();
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < count; ++i) {
        QFile envelope(QStringLiteral("%1/%2.xml").arg(QString::fromLocal8Bit(argv[2])).arg(i));
        if (!envelope.open(QIODevice::ReadOnly))
            return 1;
        QNetworkRequest request{QUrl(QString::fromLocal8Bit(argv[1]))};
        request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("text/xml;charset=utf-8"));
        QNetworkReply* reply = manager->post(request, envelope.readAll());
        QEventLoop loop;
        QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
        if (!reply->isFinished())
            loop.exec();
        if (reply->error() != QNetworkReply::NoError) {
            std::fprintf(stderr, "bench_transport: %s\n", qPrintable(reply->errorString()));
            return 1;
        }
        reply->readAll();
        reply->deleteLater();
    }
    std::printf("%lld ms\n", clock.elapsed());
    return 0;
}
