#include "HostRig.h"
#include "KepSimProcess.h"

#include <QtTest>

// Faults that take their time: a service that never answers costs the full 60-second
// time-out per product, and a trickling one must be waited for, not cut off.
class TestSlowFaults : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void slowService_data();
    void slowService();

private:
    KepSimProcess healthy_;
};

void TestSlowFaults::initTestCase()
{
    QVERIFY2(healthy_.start(QStringLiteral(KEP_SIM_PATH), QStringLiteral(KEP_FIXTURES_DIR)),
             qPrintable(healthy_.errorText()));
}

void TestSlowFaults::slowService_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("mediaId");
    QTest::addColumn<QString>("errorLine");
    QTest::addColumn<QString>("source");
    QTest::addColumn<int>("updates");
    QTest::addColumn<int>("minimumMs"); // Qt's coarse timers may fire up to 5% early
    QTest::addColumn<int>("maximumMs");

    QTest::newRow("never answers") << "hang" << "MEDIA-STUDIO-2014"
                                   << "2 \"NetworkManager::sendRequestToKep: reply error [5]: Operation canceled\""
                                   << "cache" << 2 << 57000 << 90000;
    // An unknown media id gets the shortest answer the service has: under the time-out even
    // at ten bytes a second.
    QTest::newRow("one byte per 100 ms") << "trickle" << "M" << QString() << "service" << 0 << 30000 << 57000;
}

void TestSlowFaults::slowService()
{
    QFETCH(QString, fault);
    QFETCH(QString, mediaId);
    QFETCH(QString, errorLine);
    QFETCH(QString, source);
    QFETCH(int, updates);
    QFETCH(int, minimumMs);
    QFETCH(int, maximumMs);

    HostRig rig;
    rig.writeRecord(rig.userDb(), QStringLiteral("{ONE}"), {{"MediaID", mediaId}, {"UpdateID", "1200"}});
    const QString key = QStringLiteral("gtpi__1200_") + mediaId;
    const HostRig::Result primed = rig.run(HostRig::hostArguments(healthy_.url()));
    QCOMPARE(primed.exitCode, 0);
    const QString cachedBefore = rig.cachedValue(key);
    QVERIFY(!cachedBefore.isEmpty());
    const QMap<QString, QByteArray> records = rig.databaseFiles();

    KepSimProcess sim;
    QVERIFY2(sim.start(QStringLiteral(KEP_SIM_PATH), QStringLiteral(KEP_FIXTURES_DIR), {"--fault", fault}),
             qPrintable(sim.errorText()));
    const HostRig::Result result = rig.run(HostRig::hostArguments(sim.url()));
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(HostRig::updatesIn(result.out), updates);
    QVERIFY2(result.elapsedMs >= minimumMs && result.elapsedMs <= maximumMs,
             qPrintable(QString::number(result.elapsedMs)));
    QVERIFY2(result.summary().value(0).contains(QStringLiteral(", %1, ").arg(source)), result.err.constData());
    if (!errorLine.isEmpty())
        QVERIFY2(result.errLines().contains(errorLine), result.err.constData());
    // Served from the cache it stays; answered slowly it is the same text again.
    QCOMPARE(rig.cachedValue(key), cachedBefore);
    QCOMPARE(rig.databaseFiles(), records);
    QCOMPARE(rig.cacheIntegrity(), QStringLiteral("ok"));
    qInfo("%s: %lld ms", qPrintable(fault), static_cast<long long>(result.elapsedMs));

    const HostRig::Result next = rig.run(HostRig::hostArguments(healthy_.url()));
    QCOMPARE(next.exitCode, 0);
    QVERIFY2(next.summary().value(0).contains(QLatin1String(", service, ")), next.err.constData());
}

QTEST_GUILESS_MAIN(TestSlowFaults)
#include "tst_faults_slow.moc"
