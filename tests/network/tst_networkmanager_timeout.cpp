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
    void silentServiceFallsBackToCache()
    {
        TavCoreShared::Network::NetworkAccessManager::instance()->cache()->insert("gtpi__1210_M", "<p>cached</p>");
        FakeHttpServer server({}, FakeHttpServer::Silent);
        TavCoreShared::TavSettings::SettingsManager::instance()->setProperty("KepWebServiceUrl", server.url().toString());
        KepPlugin::NetworkManager manager;
        LogCapture log(0);
        QElapsedTimer clock;
        clock.start();
        manager.call_GetTAVProductInfo("1210", "M", false); // a coarse timer may end the wait 5% early
        QVERIFY2(clock.elapsed() >= 57000 && clock.elapsed() < 70000, qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(manager.error(), 1);
        QCOMPARE(manager.networkReplyStr(), QString("cached"));
        const QString S = "NetworkManager::sendRequestToKep: ";
        QCOMPARE(log.lines().mid(1, 2), (QStringList{LogCapture::line(0, S + "request is aborted by timeout"),
                                                     LogCapture::line(2, {}, S + "reply error [5]: Operation canceled").remove(1, 1)}));
    }
};

QTEST_GUILESS_MAIN(TestNetworkManagerTimeout)
#include "tst_networkmanager_timeout.moc"
