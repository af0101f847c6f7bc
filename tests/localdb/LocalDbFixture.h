#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QMetaType>
#include <QProcessEnvironment>
#include <QString>
#include <QTemporaryDir>
#include <QStringList>
#include <QVariantMap>

namespace KepPlugin {
class Product;
}

// Files laid out in the two temporary product databases, and what the suites observe of them.
namespace LocalDbFixture {

// One file in a database: raw bytes when given, else the values written the way the
// registration tool writes them.
struct DbFile
{
    bool peruser = false;
    QString name;
    QVariantMap values;
    QByteArray raw;
};
using DbFiles = QList<DbFile>;

DbFile record(bool peruser, const QString& name, const QVariantMap& values);
DbFile rawFile(bool peruser, const QString& name, const QByteArray& raw);
QString pathOf(const DbFile& file);
void write(const DbFile& file);
void writeBytes(const QString& path, const QByteArray& bytes);
QByteArray readBytes(const QString& path);

// A legacy product: NAME.properties, and NAME.pf unless profile is null.
void writeLegacy(const QString& dir, const QString& name, const QByteArray& properties, const QByteArray& profile);
QByteArray profileXml(const QMap<QString, QString>& data);

QMap<QString, QString> strings(const QVariantMap& values);
QStringList guids(const QList<KepPlugin::Product*>& products);
// "guid=ProductName" per product, sorted, for comparing lists read in file-system order.
QStringList namesByGuid(const QList<KepPlugin::Product*>& products);

// Identity, time and bytes of every file below the directories, to see whether anything was written.
QMap<QString, QString> snapshot(const QStringList& dirs);

bool runningAsRoot();
QString quoted(const QString& text);

// Runs this test program in its child mode, as the given user when uid >= 0.
struct ChildRun
{
    bool started = false;
    int exitCode = -1;
    QStringList out;
    QStringList errLines;
};
ChildRun runChild(const QProcessEnvironment& env, const QString& workDir, int uid = -1);

// A HOME (with its empty user database) and a system database under /tmp for a child run as
// the unprivileged user: the suite's own HOME is in a directory that user cannot enter.
struct UnprivilegedLayout
{
    static constexpr int uid = 65534;
    QString skipReason() const; // empty when the child can be run as that user
    bool create();              // the user owns HOME and everything below it
    bool giveToUser(const QString& path) const;
    QProcessEnvironment environment() const;

    QTemporaryDir base;
    QString home;
    QString userDb;
    QString systemDb;
};
// The child mode: reads the databases at log level 0, prints one guid a line, and applies
// KEP_CHILD_SET_VALUE ("guid|key|value") through that product. Returns the exit status.
int childMain(int argc, char** argv);

} // namespace LocalDbFixture

Q_DECLARE_METATYPE(LocalDbFixture::DbFiles)

// A QtTest main that hands "--child" runs to the child mode.
#define KEP_LOCALDB_TEST_MAIN(TestClass)                                                                     \
    int main(int argc, char** argv)                                                                      \
    {                                                                                                     \
        if (argc > 1 && qstrcmp(argv[1], "--child") == 0)                                                 \
            return LocalDbFixture::childMain(argc, argv);                                                \
        QCoreApplication app(argc, argv);                                                                \
        TestClass test;                                                                                   \
        return QTest::qExec(&test, argc, argv);                                                           \
    }
