#include "BenchStats.h"

#include "localdb/KepKeys.h"
#include "localdb/LocalDataBaseManager.h"
#include "model/Product.h"

#include <QDir>
#include <QDomDocument>
#include <QElapsedTimer>
#include <QSettings>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <functional>

using KepPlugin::LocalDataBaseManager;
namespace Keys = KepPlugin::Keys;

namespace {

void writeFile(const QString& path, const QByteArray& bytes)
{
    QFile out(path);
    if (out.open(QIODevice::WriteOnly | QIODevice::Truncate))
        out.write(bytes);
}

void emptyDir(const QString& path)
{
    QDir(path).removeRecursively();
    QDir().mkpath(path);
}

// Records split over both databases, a tenth of them in both (read once, from the user's).
void layRecords(int count)
{
    emptyDir(Keys::USER_DB_DIR);
    emptyDir(Keys::SYSTEM_DB_DIR);
    for (int i = 0; i < count; ++i) {
        const QByteArray guid = QByteArray::number(i).rightJustified(8, '0') + "-5e1f-4c3a-9d2b-7a6c4e2f1b0d";
        const QByteArray body = "ProductName=Product " + QByteArray::number(i) + "\nProductVersion=1.0\nMediaID=M"
            + QByteArray::number(i) + "\nProductID=P\nUpdateID=1\n";
        const bool user = i % 2 == 0;
        writeFile((user ? Keys::USER_DB_DIR : Keys::SYSTEM_DB_DIR) + QLatin1Char('/') + guid + ".ini", body);
        if (i % 10 == 0)
            writeFile(Keys::SYSTEM_DB_DIR + QLatin1Char('/') + guid + ".ini", body);
    }
}

void layLegacy(int count)
{
    emptyDir(Keys::USER_DB_DIR);
    emptyDir(Keys::SYSTEM_DB_DIR);
    for (int i = 0; i < count; ++i) {
        const QString base = Keys::USER_DB_DIR + QStringLiteral("/legacy%1").arg(i);
        writeFile(base + ".properties",
                  "ProductCode=L" + QByteArray::number(i) + "\nProductName=Legacy\nVersion=1.0\n");
        writeFile(base + ".pf", "<profiles><profile><data id=\"MediaID\" value=\"M" + QByteArray::number(i)
                                    + "\"/><data id=\"ProductID\" value=\"P\"/><data id=\"UpdateID\" value=\"1\"/>"
                                      "</profile></profiles>");
    }
}

int recordCount()
{
    return QDir(Keys::SYSTEM_DB_DIR).entryList({QStringLiteral("*.ini")}, QDir::Files).size()
        + QDir(Keys::USER_DB_DIR).entryList({QStringLiteral("*.ini")}, QDir::Files).size();
}

// What a plain QSettings reader pays for the same files: the floor for reading records.
int readWithQSettings()
{
    int read = 0;
    for (const QString& dir : {Keys::USER_DB_DIR, Keys::SYSTEM_DB_DIR}) {
        const QStringList names = QDir(dir).entryList({QStringLiteral("*.ini")}, QDir::Files, QDir::NoSort);
        for (const QString& name : names) {
            QSettings ini(dir + QLatin1Char('/') + name, QSettings::IniFormat);
            for (const QString& key : Keys::REG_TOOL_FIELD_KEYS)
                read += ini.value(key).toString().isEmpty() ? 0 : 1;
        }
    }
    return read;
}

// What a repeated conversion cannot do without, done plainly: list both databases for the
// conversion and for the read, each property file through QSettings, each profile through a
// DOM, and the record's bytes twice (checked, then read). Its floor, not a competitor.
int readLegacyPlainly()
{
    int read = 0;
    const QDir db(Keys::USER_DB_DIR);
    const QDir system(Keys::SYSTEM_DB_DIR);
    // Records go to the system database when root converts.
    const QDir records = system.entryList(QDir::Files, QDir::NoSort).isEmpty() ? db : system;
    system.entryList(QDir::Files, QDir::NoSort);
    db.entryList(QDir::Files, QDir::NoSort);
    const QStringList names = db.entryList({QStringLiteral("*.properties")}, QDir::Files, QDir::NoSort);
    for (const QString& name : names) {
        const QString guid = QSettings(db.filePath(name), QSettings::IniFormat).value(QStringLiteral("ProductCode")).toString();
        QFile profile(db.filePath(QString(name).replace(QLatin1String(".properties"), QLatin1String(".pf"))));
        QDomDocument document;
        read += profile.open(QIODevice::ReadOnly) && document.setContent(&profile) ? 1 : 0;
        for (int pass = 0; pass < 2; ++pass) {
            QFile record(records.filePath(guid + QStringLiteral(".ini")));
            read += record.open(QIODevice::ReadOnly) && !record.readAll().isEmpty() ? 0 : -1;
        }
    }
    return read;
}

qint64 nsecsOf(const std::function<void()>& work)
{
    QElapsedTimer clock;
    clock.start();
    work();
    return clock.nsecsElapsed();
}

} // namespace

// Reading the product databases and converting legacy products at realistic and large sizes.
class BenchLocalDb : public QObject
{
    Q_OBJECT
private slots:
    void readRecords_data();
    void readRecords();
    void convertLegacy_data();
    void convertLegacy();
    void versusQSettings_data();
    void versusQSettings();
};

void BenchLocalDb::readRecords_data()
{
    QTest::addColumn<int>("count");
    for (int count : {1000, 5000})
        QTest::addRow("%d records", count) << count;
}

void BenchLocalDb::readRecords()
{
    QFETCH(int, count);
    layRecords(count);
    QBENCHMARK {
        LocalDataBaseManager manager;
        manager.findRegisteredProducts();
        QCOMPARE(manager.productList().size(), count);
    }
}

void BenchLocalDb::convertLegacy_data()
{
    QTest::addColumn<bool>("repeated");
    QTest::newRow("1000 legacy products, first run") << false;
    QTest::newRow("1000 legacy products, repeated run") << true;
}

void BenchLocalDb::convertLegacy()
{
    QFETCH(bool, repeated);
    const int count = 1000;
    layLegacy(count);
    LocalDataBaseManager manager;
    if (repeated) {
        manager.convertRegDb(Keys::USER_DB_DIR);
        QBENCHMARK {
            manager.convertRegDb(Keys::USER_DB_DIR);
        }
    } else {
        // Every run must start without current records, so it is measured once.
        QBENCHMARK_ONCE {
            manager.convertRegDb(Keys::USER_DB_DIR);
        }
    }
    QCOMPARE(recordCount(), count);
}

void BenchLocalDb::versusQSettings_data()
{
    QTest::addColumn<int>("records");
    QTest::addColumn<int>("converted");
    QTest::newRow("5000 records") << 5000 << 0;
    QTest::newRow("repeated read, 1000 converted legacy products") << 0 << 1000;
}

// Ours and the plain reader alternate, so that a noisy machine slows both alike; the line
// printed is the median ratio with its spread.
void BenchLocalDb::versusQSettings()
{
    QFETCH(int, records);
    QFETCH(int, converted);
    if (converted > 0) {
        layLegacy(converted);
        LocalDataBaseManager first;
        first.findRegisteredProducts();
        QCOMPARE(first.productList().size(), converted);
    } else {
        layRecords(records);
    }
    const int expected = records + converted;
    QVector<double> ratios;
    QVector<double> oursMs;
    QVector<double> plainMs;
    QVector<double> floorRatios;
    for (int round = 0; round < 7; ++round) {
        int listed = 0;
        const auto ours = [&listed] {
            LocalDataBaseManager manager;
            manager.findRegisteredProducts();
            listed = manager.productList().size();
        };
        int plainRead = 0;
        const auto plain = [&plainRead] { plainRead = readWithQSettings(); };
        const bool oursFirst = round % 2 == 1;
        const qint64 a = nsecsOf(oursFirst ? std::function<void()>(ours) : plain);
        const qint64 b = nsecsOf(oursFirst ? std::function<void()>(plain) : ours);
        QCOMPARE(listed, expected);
        QVERIFY(plainRead >= expected);
        const double oursNs = oursFirst ? a : b;
        const double plainNs = oursFirst ? b : a;
        ratios.append(oursNs / plainNs);
        if (converted > 0) {
            int floorRead = 0;
            floorRatios.append(nsecsOf([&floorRead] { floorRead = readLegacyPlainly(); }) / plainNs);
            QCOMPARE(floorRead, converted);
        }
        oursMs.append(oursNs / 1e6);
        plainMs.append(plainNs / 1e6);
    }
    qInfo("COMPARE %s: ours %.1f ms, QSettings %.1f ms, ratio %.2f (%.2f .. %.2f)", QTest::currentDataTag(),
          KepBench::median(oursMs), KepBench::median(plainMs), KepBench::median(ratios), KepBench::minimum(ratios),
          KepBench::maximum(ratios));
    if (converted > 0)
        qInfo("COMPARE %s, its floor (the same files read plainly, see readLegacyPlainly): ratio %.2f (%.2f .. %.2f)",
              QTest::currentDataTag(), KepBench::median(floorRatios), KepBench::minimum(floorRatios),
              KepBench::maximum(floorRatios));
}

int main(int argc, char** argv)
{
    // The databases are fixed when the program is loaded: run again with them in a temporary directory.
    if (!qEnvironmentVariableIsSet("KEP_BENCH_LOCALDB_CHILD")) {
        QCoreApplication app(argc, argv);
        QTemporaryDir dir;
        if (!dir.isValid())
            return 1;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("HOME"), dir.filePath(QStringLiteral("home")));
        env.insert(QStringLiteral("TAV_SYSTEM_DB_DIR"), dir.filePath(QStringLiteral("sysdb")));
        env.insert(QStringLiteral("KEP_BENCH_LOCALDB_CHILD"), QStringLiteral("1"));
        QProcess child;
        child.setProcessEnvironment(env);
        child.setWorkingDirectory(dir.path());
        child.setProcessChannelMode(QProcess::ForwardedChannels);
        child.start(QCoreApplication::applicationFilePath(), app.arguments().mid(1));
        if (!child.waitForStarted() || !child.waitForFinished(-1))
            return 1;
        return child.exitStatus() == QProcess::NormalExit ? child.exitCode() : 1;
    }
    QCoreApplication app(argc, argv);
    BenchLocalDb bench;
    return QTest::qExec(&bench, argc, argv);
}

#include "bench_localdb.moc"
