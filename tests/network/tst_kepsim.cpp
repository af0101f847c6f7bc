#include "KepSimProcess.h"
#include "model/Product.h"
#include "network/NetworkManager.h"
#include "tavcore/SettingsManager.h"

#include <QtTest>

// The client against the simulator it ships with: a real SOAP server that checks the envelope
// and the password and answers the demo fixtures.
class TestKepSim : public QObject
{
    Q_OBJECT
    KepSimProcess sim_;
private slots:
    void initTestCase()
    {
        QVERIFY2(sim_.start(KEP_SIM_PATH, KEP_FIXTURES_DIR), qPrintable(sim_.errorText()));
        TavCoreShared::TavSettings::SettingsManager::instance()->setProperty("KepWebServiceUrl", sim_.url());
    }
    void productInfo_data()
    {
        QTest::addColumn<QString>("updateId");
        QTest::addColumn<QString>("mediaId");
        QTest::addColumn<bool>("showTestUpdate");
        QTest::addColumn<int>("state");
        QTest::addColumn<QString>("result"); // the number of updates, or the start of the service's text
        QTest::newRow("test updates") << "1100" << "MEDIA-STUDIO-2014" << true << 0 << "3";
        QTest::newRow("no test updates") << "1100" << "MEDIA-STUDIO-2014" << false << 0 << "2";
        QTest::newRow("unknown media") << "1" << "MEDIA-NOPE" << false << 5 << "[326] Media id \"MEDIA-NOPE\" is not registered";
        // The login is the media id; a placeholder in it is replaced after the password was derived.
        QTest::newRow("wrong password") << "MEDIA-LEGACY-10" << "_UPDATEID_" << false << 4 << "[10] Authentication failed";
    }
    void productInfo()
    {
        QFETCH(QString, updateId);
        QFETCH(QString, mediaId);
        QFETCH(bool, showTestUpdate);
        QFETCH(int, state);
        QFETCH(QString, result);
        KepPlugin::NetworkManager manager;
        manager.call_GetTAVProductInfo(updateId, mediaId, showTestUpdate);
        QCOMPARE(manager.error(), state);
        KepPlugin::Product product("guid");
        QVERIFY2(product.parseRawXmlData(manager.networkReplyStr()), "an answer came");
        QVERIFY2(state ? manager.networkReplyStr().startsWith(result) : product.updatesList().size() == result.toInt(),
                 qPrintable(manager.networkReplyStr().left(200)));
    }
};

QTEST_GUILESS_MAIN(TestKepSim)
#include "tst_kepsim.moc"
