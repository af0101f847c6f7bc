#include "KepSimProcess.h"
#include "LogCapture.h"
#include "network/NetworkManager.h"
#include "tavcore/NetworkAccessManager.h"
#include "tavcore/NetworkCache.h"
#include "tavcore/SettingsManager.h"

#include <QtTest>

// An answer whose connection dies before the body its Content-Length announced is complete is a
// network failure, even when the transport reports the cut-off reply as finished without error:
// it falls back to the cache and never replaces the cached answer.
class TestCutShortAnswer : public QObject
{
    Q_OBJECT
private slots:
    void cutShortAnswerIsNeverTrusted_data()
    {
        QTest::addColumn<QString>("fault");
        QTest::newRow("reset after half the body") << "reset";
        QTest::newRow("closed before the announced length") << "truncated";
    }

    void cutShortAnswerIsNeverTrusted()
    {
        QFETCH(QString, fault);
        KepSimProcess sim;
        QVERIFY2(sim.start(KEP_SIM_PATH, KEP_FIXTURES_DIR, {"--fault", fault}), qPrintable(sim.errorText()));
        TavCoreShared::TavSettings::SettingsManager::instance()->setProperty("KepWebServiceUrl", sim.url());
        auto* cache = TavCoreShared::Network::NetworkAccessManager::instance()->cache();
        const QString key = "gtpi__1200_MEDIA-STUDIO-2014-" + fault, good = "the good answer of yesterday";
        cache->insert(key, good);
        KepPlugin::NetworkManager manager;
        for (int attempt = 0; attempt < 5; ++attempt) { // how the transport sees the cut depends on timing
            LogCapture log(2);
            QByteArray body = "<soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\">"
                              "<soap:Body><GetTAVProductInfo/></soap:Body></soap:Envelope>";
            manager.sendRequestToKep(manager.prepareRequest(body, key), body);
            manager.checkNetworkReply();
            QVERIFY2(log.lines().size() == 1 && QRegularExpression("^2 \"NetworkManager::sendRequestToKep: reply error \\[2\\]: "
                     "Connection closed( after \\d+ of \\d+ bytes)?\"$").match(log.lines()[0]).hasMatch(), qPrintable(log.lines().join('\n')));
            QCOMPARE(QStringList({QString::number(manager.error()), manager.networkReplyStr(), cache->data(key)}),
                     QStringList({"1", good, good}));
        }
    }
};

QTEST_GUILESS_MAIN(TestCutShortAnswer)
#include "tst_cutshortanswer.moc"
