#include "FakeHttpServer.h"
#include "LogCapture.h"
#include "network/NetworkManager.h"
#include "tavcore/NetworkAccessManager.h"
#include "tavcore/NetworkCache.h"
#include "tavcore/SettingsManager.h"

#include <QtTest>

// The one real time-out: a service that takes the request and never answers. A minute long,
// so it runs under the "slow" label only.
class TestNetworkManagerTimeout : public QObject
{
    Q_OBJECT
private slots:
    void silentServiceFallsBackToCache();
};

void TestNetworkManagerTimeout::silentServiceFallsBackToCache()
{
    TavCoreShared::Network::NetworkAccessManager::instance()->cache()->insert(
        QStringLiteral("gtpi__1210_MEDIA-STUDIO-2014"), QStringLiteral("<p>cached product</p>"));
    FakeHttpServer server;
    server.setAnswer(QByteArray(), FakeHttpServer::Ending::Silent);
    TavCoreShared::TavSettings::SettingsManager::instance()->setProperty(QStringLiteral("KepWebServiceUrl"),
                                                                         server.url().toString());
    KepPlugin::NetworkManager manager;
    LogCapture log(0);
    QElapsedTimer clock;
    clock.start();
    manager.call_GetTAVProductInfo(QStringLiteral("1210"), QStringLiteral("MEDIA-STUDIO-2014"), false);
    const qint64 elapsed = clock.elapsed();

    QVERIFY2(elapsed >= 59900 && elapsed < 70000, qPrintable(QString::number(elapsed)));
    QCOMPARE(server.requests().size(), 1);
    QCOMPARE(manager.error(), 1);
    QCOMPARE(manager.networkReplyStr(), QStringLiteral("cached product"));
    QCOMPARE(log.lines().mid(1),
             (QStringList{
                 QStringLiteral("0 NetworkManager::sendRequestToKep: request is aborted by timeout"),
                 QStringLiteral("2 \"NetworkManager::sendRequestToKep: reply error [5]: Operation canceled\""),
                 QStringLiteral("0 NetworkManager::sendRequestToKep: try loading data from cache..."),
                 QStringLiteral("0 NetworkManager::sendRequestToKep: cached data loaded"),
             }));
}

QTEST_GUILESS_MAIN(TestNetworkManagerTimeout)
#include "tst_networkmanager_timeout.moc"
