#include "localdb/KepKeys.h"
#include "localdb/LocalDataBaseManager.h"
#include "model/Product.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

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
