#include "TestDb.h"
#include "tavcore/SettingsManager.h"

#include <QTemporaryDir>
#include <QtTest>

using TavCoreShared::TavSettings::SettingsManager;

// The host's settings: which source wins, what is refused, and no defaults.
class TestSettingsManager : public QObject
{
    Q_OBJECT
private slots:
    void precedence_data()
    {
        QTest::addColumn<QStringList>("files"); // loaded in order; <dir> and <missing> stand for such paths
        QTest::addColumn<int>("refused");       // index of the file that must be refused, or -1
        QTest::addColumn<QString>("override");  // set by the host program before the files; null: none
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("expected"); // null: invalid variant
        const QString url1 = "KepWebServiceUrl=http://127.0.0.1:1/\n", url2 = "KepWebServiceUrl=http://127.0.0.1:2/\n";
        const QString url = QStringLiteral("KepWebServiceUrl");
        QTest::newRow("later file wins") << QStringList{url1, url2} << -1 << QString() << url << "http://127.0.0.1:2/";
        QTest::newRow("earlier file keeps what the later lacks")
            << QStringList{url1 + "ShowTestUpdates=1\n", url2} << -1 << QString() << "ShowTestUpdates" << "1";
        QTest::newRow("override wins over files") << QStringList{url1} << -1 << "http://127.0.0.1:3/" << url
                                                  << "http://127.0.0.1:3/";
        QTest::newRow("no default") << QStringList{url1} << -1 << "x" << "ShowTestUpdates" << QString();
        QTest::newRow("case-sensitive keys") << QStringList{url1} << -1 << QString() << "kepwebserviceurl" << QString();
        QTest::newRow("broken file adds nothing")
            << QStringList{url1, "[Kep\n" + url2 + "ShowTestUpdates=1\n"} << 1 << QString() << url
            << "http://127.0.0.1:1/";
        QTest::newRow("directory") << QStringList{"<dir>"} << 0 << QString() << url << QString();
        QTest::newRow("missing file") << QStringList{"<missing>"} << 0 << QString() << url << QString();
    }
    void precedence()
    {
        QFETCH(QStringList, files);
        QFETCH(int, refused);
        QFETCH(QString, override);
        QFETCH(QString, key);
        QFETCH(QString, expected);
        QTemporaryDir dir;
        SettingsManager* settings = SettingsManager::instance();
        settings->clear();
        if (!override.isNull())
            settings->setProperty(QStringLiteral("KepWebServiceUrl"), override);
        for (int i = 0; i < files.size(); ++i) {
            const QString path = dir.filePath(QString::number(i));
            if (files[i] == QLatin1String("<dir>"))
                QVERIFY(QDir().mkdir(path));
            else if (files[i] != QLatin1String("<missing>"))
                QVERIFY(TestDb::writeFile(path, files[i].toUtf8()));
            QCOMPARE(settings->loadFile(path), i != refused);
        }
        const QVariant value = settings->getProperty(key);
        QCOMPARE(value.isValid(), !expected.isNull());
        QCOMPARE(value.toString(), expected.isNull() ? QString() : expected);
    }
};

QTEST_GUILESS_MAIN(TestSettingsManager)
#include "tst_settingsmanager.moc"
