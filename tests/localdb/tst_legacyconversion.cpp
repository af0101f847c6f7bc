#include "LocalDbFixture.h"
#include "LogCapture.h"
#include "TestDb.h"
#include "localdb/LocalDataBaseManager.h"
#include "model/Product.h"

#include <QtTest>

using namespace LocalDbFixture;
using KepPlugin::LocalDataBaseManager;
using Record = QMap<QString, QString>;

namespace {

const QString entryPrefix = QStringLiteral("LocalDataBaseManager::convertFncProductEntry: ");

QString entryLine(int level, const QString& text)
{
    return QString::number(level) + QLatin1Char(' ') + entryPrefix + text;
}

const QString converting = entryLine(0, QStringLiteral("converting  \"%P\""));
const QString completed = entryLine(0, QStringLiteral("product convertation completed!"));
const QString refreshed = entryLine(0, QStringLiteral("legacy updateId was updated, set it in new db"));
const QString unchanged = entryLine(1, QStringLiteral("skip convertation since legacy updateId is not changed"));
const QString noProfile = QStringLiteral("2 LocalDataBaseManager: openXML: cannot open file for reading:  \"%F\"");
const QString badProfile = QStringLiteral("2 LocalDataBaseManager: openXML: ERROR: failed to read:  \"%F\"");

QString registered(const QString& guid)
{
    return TestDb::systemDir() + QLatin1Char('/') + guid + QStringLiteral(".ini");
}

const QByteArray studio = "ProductCode=G1\nProductName=Studio Pro\nVersion=3.1\n";
const QByteArray studioProfile = profileXml({{"MediaID", "M1"}, {"ProductID", "P1"}, {"UpdateID", "U1"}});
const Record studioRecord{{"ProductName", "Studio Pro"}, {"ProductVersion", "3.1"}, {"MediaID", "M1"},
                          {"ProductID", "P1"},           {"UpdateID", "U1"},        {"RecordMigrated", "1"}};

} // namespace

// Conversion of the previous generation's .properties/.pf products into current records.
class TestLegacyConversion : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();

    void convertsOneEntry_data();
    void convertsOneEntry();
    void missingFileIsNotConverted();
    void convertsBothLocationsIntoRootsDatabase();
    void repeatedReadsWriteNothingNew_data();
    void repeatedReadsWriteNothingNew();
    void unreadableProfileAsUnprivilegedUser();
};

void TestLegacyConversion::initTestCase()
{
    QVERIFY2(TestDb::isolated(), "run through CTest, which gives the suite a temporary HOME and system database");
}

void TestLegacyConversion::init()
{
    TestDb::reset();
}

void TestLegacyConversion::convertsOneEntry_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("properties");
    QTest::addColumn<QByteArray>("profile");  // null: no .pf file
    QTest::addColumn<QByteArray>("existing"); // null: no current record
    QTest::addColumn<bool>("result");
    QTest::addColumn<Record>("expected"); // empty: no record may exist
    QTest::addColumn<QStringList>("lines");

    const QString legacy = QStringLiteral("legacy");
    QTest::newRow("new product is registered")
        << legacy << studio << studioProfile << QByteArray() << true << studioRecord
        << QStringList{converting, completed};
    QTest::newRow("changed update id is refreshed without registering again")
        << legacy << studio << studioProfile << QByteArray("ProductName=Old\nUpdateID=U0\nMediaID=Mx\n") << false
        << Record{{"ProductName", "Old"}, {"UpdateID", "U1"}, {"MediaID", "Mx"}} << QStringList{converting, refreshed};
    QTest::newRow("unchanged update id is skipped")
        << legacy << studio << studioProfile << QByteArray("ProductName=Old\nUpdateID=U1\n") << false
        << Record{{"ProductName", "Old"}, {"UpdateID", "U1"}} << QStringList{converting, unchanged};
    QTest::newRow("empty legacy update id registers again")
        << legacy << studio << profileXml({{"MediaID", "M1"}, {"ProductID", "P1"}})
        << QByteArray("ProductName=Old\nUpdateID=U0\nKeep=me\n") << true
        << Record{{"ProductName", "Studio Pro"}, {"ProductVersion", "3.1"}, {"MediaID", "M1"}, {"ProductID", "P1"},
                  {"UpdateID", ""},          {"RecordMigrated", "1"},    {"Keep", "me"}}
        << QStringList{converting, completed};
    QTest::newRow("record that will not load is registered again")
        << legacy << studio << studioProfile << QByteArray("[broken\nUpdateID=U1\n") << true << studioRecord
        << QStringList{converting, completed};
    QTest::newRow("no profile: empty ids")
        << legacy << studio << QByteArray() << QByteArray() << true
        << Record{{"ProductName", "Studio Pro"}, {"ProductVersion", "3.1"}, {"MediaID", ""}, {"ProductID", ""},
                  {"UpdateID", ""},          {"RecordMigrated", "1"}}
        << QStringList{converting, noProfile, completed};
    const Record withoutIds{{"ProductName", "Studio Pro"}, {"ProductVersion", "3.1"}, {"MediaID", ""},
                            {"ProductID", ""},           {"UpdateID", ""},        {"RecordMigrated", "1"}};
    QTest::newRow("empty profile") << legacy << studio << QByteArray("") << QByteArray() << true << withoutIds
                                   << QStringList{converting, badProfile,
                                                  "2 Error message:  \"unexpected end of file\"",
                                                  "2 Line:  1 ; Column:  1", completed};
    QTest::newRow("profile is not XML")
        << legacy << studio << QByteArray("MediaID=M1\n") << QByteArray() << true << withoutIds
        << QStringList{converting, badProfile, "2 Error message:  \"error occurred while parsing element\"",
                       "2 Line:  1 ; Column:  1", completed};
    QTest::newRow("profile cut short")
        << legacy << studio << QByteArray("<profiles><profile><data id=\"MediaID\" value=\"M1\"/>") << QByteArray()
        << true << withoutIds
        << QStringList{converting, badProfile, "2 Error message:  \"unexpected end of file\"",
                       "2 Line:  1 ; Column:  51", completed};
    QTest::newRow("profile with other elements")
        << legacy << studio
        << QByteArray("<profiles><settings><data id=\"MediaID\" value=\"M1\"/></settings>"
                      "<profile><item id=\"ProductID\" value=\"P1\"/></profile></profiles>")
        << QByteArray() << true << withoutIds << QStringList{converting, completed};
    QTest::newRow("only the first profile counts, later data wins")
        << legacy << studio
        << QByteArray("<profiles><profile><data id=\"MediaID\" value=\"old\"/><data id=\"MediaID\" value=\"M1\"/>"
                      "<data id=\"ProductID\" value=\"P1\"/><data id=\"UpdateID\" value=\"U1\"/></profile>"
                      "<profile><data id=\"UpdateID\" value=\"second\"/></profile></profiles>")
        << QByteArray() << true << studioRecord << QStringList{converting, completed};
    QTest::newRow("profiles nested below another root")
        << legacy << studio << QByteArray("<root><profiles><profile><data id=\"MediaID\" value=\"M1\"/>"
                                          "<data id=\"ProductID\" value=\"P1\"/><data id=\"UpdateID\" value=\"U1\"/>"
                                          "</profile></profiles></root>")
        << QByteArray() << true << studioRecord << QStringList{converting, completed};
    QTest::newRow("every .properties in the name becomes .pf")
        << QStringLiteral("g.properties") << studio << studioProfile << QByteArray() << true << studioRecord
        << QStringList{converting, completed};
    QTest::newRow("no product code")
        << legacy << QByteArray("ProductName=Studio Pro\nVersion=3.1\n") << studioProfile << QByteArray() << false
        << Record{} << QStringList{converting, entryLine(2, QStringLiteral("found guid is not valid:  \"\""))};
    QTest::newRow("non-ASCII name and version")
        << legacy << QByteArray("ProductCode=G1\nProductName=Gr\\x00fcne Pr\\x00f6\nVersion=3.1 \\x03b2\n")
        << studioProfile << QByteArray() << true
        << Record{{"ProductName", QStringLiteral("Grüne Prö")}, {"ProductVersion", QStringLiteral("3.1 β")},
                  {"MediaID", "M1"},
                  {"ProductID", "P1"},
                  {"UpdateID", "U1"},
                  {"RecordMigrated", "1"}}
        << QStringList{converting, completed};
}

void TestLegacyConversion::convertsOneEntry()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, properties);
    QFETCH(QByteArray, profile);
    QFETCH(QByteArray, existing);
    QFETCH(bool, result);
    QFETCH(Record, expected);
    QFETCH(QStringList, lines);

    writeLegacy(TestDb::userDir(), name, properties, profile);
    const QString propertiesPath = TestDb::userDir() + QLatin1Char('/') + name + QStringLiteral(".properties");
    const QString profilePath = QString(propertiesPath).replace(QStringLiteral(".properties"), QStringLiteral(".pf"));
    if (!existing.isNull())
        writeBytes(registered("G1"), existing);
    const QMap<QString, QString> legacyBefore = snapshot({TestDb::userDir()});

    LogCapture log(0);
    LocalDataBaseManager manager;
    QCOMPARE(manager.convertFncProductEntry(propertiesPath, false), result);

    for (QString& line : lines)
        line.replace(QStringLiteral("%P"), propertiesPath).replace(QStringLiteral("%F"), profilePath);
    QCOMPARE(log.lines(), lines);
    if (expected.isEmpty())
        QVERIFY(QDir(TestDb::systemDir()).entryList(QDir::Files | QDir::Hidden).isEmpty());
    else
        QCOMPARE(TestDb::readRecord(false, QStringLiteral("G1")), expected);
    QCOMPARE(snapshot({TestDb::userDir()}), legacyBefore);
}

void TestLegacyConversion::missingFileIsNotConverted()
{
    const QString path = TestDb::userDir() + QStringLiteral("/absent.properties");
    LogCapture log(0);
    LocalDataBaseManager manager;
    QVERIFY(!manager.convertFncProductEntry(path, false));
    QCOMPARE(log.lines(), (QStringList{entryLine(0, QStringLiteral("converting  ")) + quoted(path),
                                       entryLine(2, QStringLiteral("file isn't exist  ")) + quoted(path)}));
}

void TestLegacyConversion::convertsBothLocationsIntoRootsDatabase()
{
    if (!runningAsRoot())
        QSKIP("the root branch needs a root process; the other branch runs in the reading suite");
    writeLegacy(TestDb::userDir(), QStringLiteral("mine"), "ProductCode=U-G\nProductName=Mine\n", profileXml({}));
    writeLegacy(TestDb::systemDir(), QStringLiteral("shared"), "ProductCode=S-G\nProductName=Shared\n", QByteArray());
    writeBytes(TestDb::systemDir() + QStringLiteral("/loud.PROPERTIES"), "ProductCode=LOUD\n");

    LogCapture log(0);
    LocalDataBaseManager manager;
    manager.convertRegDb(TestDb::userDir());
    const QString file = TestDb::userDir() + QStringLiteral("/mine.properties");
    QCOMPARE(log.lines(),
             (QStringList{QStringLiteral("0 LocalDataBaseManager::convertRegDb: trying to find and convert FNC db "
                                         "from TAV 1.0: path =  ")
                              + quoted(TestDb::userDir()),
                          QStringLiteral("0 LocalDataBaseManager::convertRegDb: found TAV 1.0 property file:  ")
                              + quoted(file),
                          entryLine(0, QStringLiteral("converting  ")) + quoted(file), completed,
                          QStringLiteral("0 LocalDataBaseManager::convertRegDb: convertation of all products in this "
                                         "location is done")}));

    manager.findRegisteredProducts();
    QCOMPARE(namesByGuid(manager.productList()), (QStringList{"S-G=Shared", "U-G=Mine"}));
    for (const QString guid : {"U-G", "S-G"}) {
        QVERIFY(QFile::exists(registered(guid)));
        QVERIFY(manager.getProductByGuid(guid)->isLegacy());
    }
    QVERIFY(!QFile::exists(registered("LOUD")));
    QVERIFY(QDir(TestDb::userDir()).entryList({"*.ini"}, QDir::Files).isEmpty());
}

void TestLegacyConversion::repeatedReadsWriteNothingNew_data()
{
    QTest::addColumn<bool>("withoutUpdateId");
    QTest::newRow("settled database") << false;
    // Registered again on every read: same content, new file.
    QTest::newRow("legacy product without update id") << true;
}

void TestLegacyConversion::repeatedReadsWriteNothingNew()
{
    QFETCH(bool, withoutUpdateId);
    writeLegacy(TestDb::userDir(), QStringLiteral("a"), "ProductCode=A\nProductName=A\n",
                profileXml({{"MediaID", "MA"}, {"UpdateID", "1"}}));
    writeLegacy(TestDb::systemDir(), QStringLiteral("b"), "ProductCode=B\nProductName=B\n",
                profileXml({{"MediaID", "MB"}, {"UpdateID", "2"}}));
    writeBytes(TestDb::userDir() + QStringLiteral("/C.ini"), "ProductName=C\nUpdateID=3\n");
    if (withoutUpdateId)
        writeLegacy(TestDb::systemDir(), QStringLiteral("d"), "ProductCode=D\nProductName=D\n", QByteArray());

    QStringList firstList;
    QMap<QString, QString> settled;
    for (int round = 1; round <= 3; ++round) {
        LogCapture log(1);
        LocalDataBaseManager manager;
        manager.findRegisteredProducts();
        const QStringList list = namesByGuid(manager.productList());
        const QMap<QString, QString> files = snapshot({TestDb::userDir(), TestDb::systemDir()});
        if (round == 1) {
            firstList = list;
            settled = files;
            QCOMPARE(list, (withoutUpdateId ? QStringList{"A=A", "B=B", "C=C", "D=D"}
                                            : QStringList{"A=A", "B=B", "C=C"}));
            continue;
        }
        QCOMPARE(list, firstList);
        QCOMPARE(log.lines().count(unchanged), 2);
        if (!withoutUpdateId) {
            QCOMPARE(files, settled);
            continue;
        }
        const QString d = registered("D");
        QCOMPARE(files.keys(), settled.keys());
        QVERIFY(files.value(d) != settled.value(d));
        QCOMPARE(files.value(d).section(' ', 2), settled.value(d).section(' ', 2));
        settled.remove(d);
        for (auto it = settled.cbegin(); it != settled.cend(); ++it)
            QCOMPARE(files.value(it.key()), it.value());
        settled = files;
    }
}

void TestLegacyConversion::unreadableProfileAsUnprivilegedUser()
{
    UnprivilegedLayout layout;
    if (!layout.skipReason().isEmpty())
        QSKIP(qPrintable(layout.skipReason()));
    QVERIFY(layout.create());
    const QString& userDb = layout.userDb;
    writeLegacy(userDb, QStringLiteral("p"), "ProductCode=P\nProductName=P\n", profileXml({{"UpdateID", "9"}}));
    QFile::setPermissions(userDb + QStringLiteral("/p.pf"), QFileDevice::ReadOwner | QFileDevice::WriteOwner);

    const ChildRun run = runChild(layout.environment(), layout.home, layout.uid);
    QVERIFY(run.started);
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.out, QStringList{"P"});
    QVERIFY2(run.errLines.contains(QStringLiteral("2 LocalDataBaseManager: openXML: cannot open file for reading:  ")
                                   + quoted(userDb + QStringLiteral("/p.pf"))),
             qPrintable(run.errLines.join('\n')));
    QSettings converted(userDb + QStringLiteral("/P.ini"), QSettings::IniFormat);
    QCOMPARE(converted.value("UpdateID").toString(), QString());
    QCOMPARE(converted.value("RecordMigrated").toString(), QStringLiteral("1"));
}

KEP_LOCALDB_TEST_MAIN(TestLegacyConversion)
#include "tst_legacyconversion.moc"
