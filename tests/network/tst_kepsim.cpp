#include "KepSimProcess.h"
#include "LogCapture.h"
#include "model/News.h"
#include "model/Product.h"
#include "model/Update.h"
#include "network/NetworkManager.h"
#include "tavcore/NetworkAccessManager.h"
#include "tavcore/NetworkCache.h"
#include "tavcore/SettingsManager.h"

#include <QDomDocument>
#include <QtTest>

#include <algorithm>

using KepPlugin::NetworkManager;

namespace {

const char* const envelopeHead =
    "<soap:Envelope xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
    "xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\">";

QStringList ids(const QList<KepPlugin::Update*>& updates)
{
    QStringList result;
    for (auto* update : updates)
        result.append(update->getDataByKey(QStringLiteral("id")));
    return result;
}

QStringList ids(const QList<KepPlugin::News*>& news)
{
    QStringList result;
    for (auto* message : news)
        result.append(message->getDataByKey(QStringLiteral("id")));
    return result;
}

} // namespace

// The client against the simulator it ships with: a real SOAP server checking our envelope,
// our password and answering the demo fixtures.
class TestKepSim : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanupTestCase();

    void productInfo_data();
    void productInfo();
    void serviceCodes_data();
    void serviceCodes();
    void delayDoesNotBlockOtherClients();
    void manyCallsInARow();

private:
    QString post(NetworkManager& manager, const QString& envelope);

    KepSimProcess sim_;
    QString url_;
};

void TestKepSim::initTestCase()
{
    QVERIFY2(sim_.start(QStringLiteral(KEP_SIM_PATH), QStringLiteral(KEP_FIXTURES_DIR)), qPrintable(sim_.errorText()));
    url_ = sim_.url();
    QVERIFY(url_.startsWith(QLatin1String("http://127.0.0.1:")));
    TavCoreShared::TavSettings::SettingsManager::instance()->setProperty(QStringLiteral("KepWebServiceUrl"), url_);
}

void TestKepSim::cleanupTestCase()
{
    sim_.stop();
}

void TestKepSim::productInfo_data()
{
    QTest::addColumn<QString>("updateId");
    QTest::addColumn<QString>("mediaId");
    QTest::addColumn<bool>("showTestUpdate");
    QTest::addColumn<QStringList>("updates");
    QTest::addColumn<QStringList>("news");

    QTest::newRow("studio default, test updates")
        << "1100" << "MEDIA-STUDIO-2014" << true << QStringList{"1200", "1210", "1220"} << QStringList{"N-501", "N-490"};
    QTest::newRow("studio default, no test updates")
        << "1100" << "MEDIA-STUDIO-2014" << false << QStringList{"1200", "1210"} << QStringList{"N-501", "N-490"};
    QTest::newRow("studio at 1200") << "1200" << "MEDIA-STUDIO-2014" << false << QStringList{"1210", "1215"}
                                    << QStringList{"N-501", "N-490"};
    QTest::newRow("tools") << "" << "MEDIA-TOOLS-2013" << true << QStringList{"870", "880"}
                           << QStringList{"N-490", "N-455"};
    QTest::newRow("legacy") << "300" << "MEDIA-LEGACY-10" << false << QStringList{"310"} << QStringList{"N-300"};
}

void TestKepSim::productInfo()
{
    QFETCH(QString, updateId);
    QFETCH(QString, mediaId);
    QFETCH(bool, showTestUpdate);
    QFETCH(QStringList, updates);
    QFETCH(QStringList, news);

    NetworkManager manager;
    manager.call_GetTAVProductInfo(updateId, mediaId, showTestUpdate);
    QCOMPARE(manager.error(), 0);
    const QString text = manager.networkReplyStr();
    QVERIFY2(text.startsWith(QLatin1String("<?xml")), qPrintable(text.left(100)));
    QVERIFY2(!text.contains(QLatin1String("test=")), "the test marker never reaches the client");

    KepPlugin::Product product(QStringLiteral("guid"));
    QVERIFY(product.parseRawXmlData(text));
    QCOMPARE(ids(product.updatesList()), updates);
    QCOMPARE(ids(product.newsList()), news);
    for (auto* update : product.updatesList()) {
        QCOMPARE(update->getDataByKey(QStringLiteral("media_id")), mediaId);
        QVERIFY(!update->getDataByKey(QStringLiteral("download_cheksum")).isEmpty());
        if (update->getDataByKey(QStringLiteral("id")) == QLatin1String("1210"))
            QCOMPARE(update->relatedUpdates(), (QList<int>{1180, 1150}));
    }
    const QString key = QStringLiteral("gtpi__%1_%2").arg(updateId, mediaId);
    QVERIFY(!TavCoreShared::Network::NetworkAccessManager::instance()->cache()->data(key).isEmpty());
}

QString TestKepSim::post(NetworkManager& manager, const QString& envelope)
{
    QByteArray body = envelope.toUtf8();
    manager.sendRequestToKep(manager.prepareRequest(envelope, QString()), body);
    manager.removeSoapHeaders();
    manager.checkNetworkReply();
    return manager.networkReplyStr();
}

void TestKepSim::serviceCodes_data()
{
    QTest::addColumn<QString>("login");
    QTest::addColumn<QString>("password"); // empty: the right one for the login
    QTest::addColumn<QString>("mediaId");
    QTest::addColumn<int>("state");
    QTest::addColumn<QString>("text");

    QTest::newRow("right credentials") << "MEDIA-LEGACY-10" << "" << "MEDIA-LEGACY-10" << 0 << "<?xml";
    QTest::newRow("wrong password") << "MEDIA-LEGACY-10" << QString(64, QLatin1Char('0')) << "MEDIA-LEGACY-10" << 4
                                    << "[10] Authentication failed for login \"MEDIA-LEGACY-10\"";
    QTest::newRow("password in upper case") << "MEDIA-LEGACY-10" << "upper" << "MEDIA-LEGACY-10" << 4 << "[10] ";
    QTest::newRow("login is not the media id") << "MEDIA-TOOLS-2013" << "" << "MEDIA-LEGACY-10" << 4 << "[10] ";
    QTest::newRow("unknown media") << "MEDIA-NOPE" << "" << "MEDIA-NOPE" << 5
                                   << "[326] Media id \"MEDIA-NOPE\" is not registered";
    QTest::newRow("media id leaving the fixtures") << "../MEDIA-LEGACY-10" << "" << "../MEDIA-LEGACY-10" << 5
                                                   << "[326] ";
}

void TestKepSim::serviceCodes()
{
    QFETCH(QString, login);
    QFETCH(QString, password);
    QFETCH(QString, mediaId);
    QFETCH(int, state);
    QFETCH(QString, text);

    NetworkManager manager;
    if (password.isEmpty())
        password = manager.getHmacSHA256(login);
    else if (password == QLatin1String("upper"))
        password = manager.getHmacSHA256(login).toUpper();
    const QString envelope =
        QString::fromLatin1(envelopeHead)
        + QStringLiteral("<soap:Header><AuthHeader xmlns=\"urn:vasko:kep:registration:1\"><Login>%1</Login>"
                         "<Password>%2</Password></AuthHeader></soap:Header><soap:Body>"
                         "<GetTAVProductInfo xmlns=\"urn:vasko:kep:registration:1\"><mediaID>%3</mediaID>"
                         "<updateID>1</updateID><showTestUpdate>n</showTestUpdate></GetTAVProductInfo>"
                         "</soap:Body></soap:Envelope>")
              .arg(login, password, mediaId);
    const QString answer = post(manager, envelope);
    QVERIFY2(answer.startsWith(text), qPrintable(answer.left(200)));
    QCOMPARE(manager.error(), state);
}

void TestKepSim::delayDoesNotBlockOtherClients()
{
    KepSimProcess slow;
    QVERIFY2(slow.start(QStringLiteral(KEP_SIM_PATH), QStringLiteral(KEP_FIXTURES_DIR),
                        {QStringLiteral("--delay-ms"), QStringLiteral("1500")}),
             qPrintable(slow.errorText()));
    const QString slowUrl = slow.url();

    // Two calls in flight at once on one loop: both answered after about one delay, not two.
    auto* nam = TavCoreShared::Network::NetworkAccessManager::instance();
    NetworkManager builder;
    auto request = [&](const QString& mediaId) {
        QNetworkRequest r(QUrl{slowUrl});
        r.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("text/xml;charset=utf-8"));
        const QString envelope = QString::fromLatin1(envelopeHead)
            + QStringLiteral("<soap:Header><AuthHeader><Login>%1</Login><Password>%2</Password></AuthHeader>"
                             "</soap:Header><soap:Body><GetTAVProductInfo><mediaID>%1</mediaID>"
                             "<updateID/><showTestUpdate>n</showTestUpdate></GetTAVProductInfo></soap:Body>"
                             "</soap:Envelope>")
                  .arg(mediaId, builder.getHmacSHA256(mediaId));
        return nam->post(r, envelope.toUtf8());
    };
    QElapsedTimer clock;
    clock.start();
    QNetworkReply* first = request(QStringLiteral("MEDIA-LEGACY-10"));
    QNetworkReply* second = request(QStringLiteral("MEDIA-TOOLS-2013"));
    QTRY_VERIFY_WITH_TIMEOUT(first->isFinished() && second->isFinished(), 10000);
    const qint64 elapsed = clock.elapsed();
    QCOMPARE(first->error(), QNetworkReply::NoError);
    QCOMPARE(second->error(), QNetworkReply::NoError);
    QVERIFY2(elapsed >= 1400 && elapsed < 2900, qPrintable(QString::number(elapsed)));
    QVERIFY(first->readAll().contains("legacy10-final.tar.gz"));
    QVERIFY(second->readAll().contains("tools2013-sp2.tar.gz"));
    delete first;
    delete second;
}

// One kept-alive connection for call after call; the per-call time is printed for the record.
void TestKepSim::manyCallsInARow()
{
    NetworkManager manager;
    QVector<qint64> micros;
    for (int i = 0; i < 200; ++i) {
        QElapsedTimer clock;
        clock.start();
        manager.call_GetTAVProductInfo(QStringLiteral("1200"), QStringLiteral("MEDIA-STUDIO-2014"), true);
        micros.append(clock.nsecsElapsed() / 1000);
        QCOMPARE(manager.error(), 0);
    }
    std::sort(micros.begin(), micros.end());
    qInfo("call_GetTAVProductInfo against kep-sim: median %lld us, 90th percentile %lld us over %d calls",
          micros.at(micros.size() / 2), micros.at(micros.size() * 9 / 10), int(micros.size()));
}

QTEST_GUILESS_MAIN(TestKepSim)
#include "tst_kepsim.moc"
