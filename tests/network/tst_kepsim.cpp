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
        QTest::addColumn<QStringList>("request"); // updateId, mediaId, "y" for test updates
        QTest::addColumn<int>("state");
        QTest::addColumn<QString>("result"); // the number of updates, or the start of the service's text
        QTest::newRow("test updates") << QStringList{"1100", "MEDIA-STUDIO-2014", "y"} << 0 << "3";
        QTest::newRow("no test updates") << QStringList{"1100", "MEDIA-STUDIO-2014", "n"} << 0 << "2";
        QTest::newRow("unknown media") << QStringList{"1", "MEDIA-NOPE", "n"} << 5 << "[326] Media id \"MEDIA-NOPE\" is not registered";
        // The login is the media id; a placeholder in it is replaced after the password was derived.
        QTest::newRow("wrong password") << QStringList{"MEDIA-LEGACY-10", "_UPDATEID_", "n"} << 4 << "[10] Authentication failed";
    }
    void productInfo()
    {
        QFETCH(QStringList, request);
        QFETCH(int, state);
        QFETCH(QString, result);
        KepPlugin::NetworkManager manager;
        manager.call_GetTAVProductInfo(request[0], request[1], request[2] == "y");
        QCOMPARE(manager.error(), state);
        KepPlugin::Product product("guid");
        product.parseRawXmlData(manager.networkReplyStr());
        QCOMPARE(state ? manager.networkReplyStr().left(result.size()) : QString::number(product.updatesList().size()), result);
    }
};

QTEST_GUILESS_MAIN(TestKepSim)
#include "tst_kepsim.moc"
