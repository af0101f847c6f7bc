#include "HelperProcess.h"
#include "tavcore/SettingsManager.h"

#include <QTemporaryDir>
#include <QtTest>

using TavCoreShared::TavSettings::SettingsManager;

// The host's settings: which source wins, and which files are refused.
class TestSettingsManager : public QObject
{
    Q_OBJECT
private slots:
    void init();
    void cleanup();
    void precedence_data();
    void precedence();
    void refusedFile_data();
    void refusedFile();
    void unreadableFile();

private:
    QString writeFile(const QString& name, const QByteArray& bytes);
    QScopedPointer<QTemporaryDir> dir_;
};

void TestSettingsManager::init()
{
    dir_.reset(new QTemporaryDir);
    QVERIFY(dir_->isValid());
    SettingsManager::instance()->clear();
}

void TestSettingsManager::cleanup()
{
    SettingsManager::instance()->clear();
}

QString TestSettingsManager::writeFile(const QString& name, const QByteArray& bytes)
{
    QFile file(dir_->filePath(name));
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        qFatal("cannot write %s", qPrintable(file.fileName()));
    return file.fileName();
}

void TestSettingsManager::precedence_data()
{
    QTest::addColumn<QList<QByteArray>>("files");       // loaded in this order
    QTest::addColumn<QVariantMap>("overrides");          // set by the host program
    QTest::addColumn<bool>("overridesFirst");            // set before the files are loaded
    QTest::addColumn<QString>("key");
    QTest::addColumn<QVariant>("expected");
    const QByteArray url1 = "KepWebServiceUrl=http://127.0.0.1:1/one\n";
    const QByteArray url2 = "KepWebServiceUrl=http://127.0.0.1:2/two\n";
    const QVariantMap override{{QStringLiteral("KepWebServiceUrl"), QStringLiteral("http://127.0.0.1:3/set")}};
    QTest::newRow("from a file") << QList<QByteArray>{url1} << QVariantMap() << false << "KepWebServiceUrl"
                                 << QVariant(QStringLiteral("http://127.0.0.1:1/one"));
    QTest::newRow("later file wins") << QList<QByteArray>{url1, url2} << QVariantMap() << false << "KepWebServiceUrl"
                                     << QVariant(QStringLiteral("http://127.0.0.1:2/two"));
    QTest::newRow("earlier file keeps what the later lacks")
        << QList<QByteArray>{url1 + "ShowTestUpdates=1\n", url2} << QVariantMap() << false << "ShowTestUpdates"
        << QVariant(QStringLiteral("1"));
    QTest::newRow("override wins over files") << QList<QByteArray>{url1} << override << false << "KepWebServiceUrl"
                                              << QVariant(QStringLiteral("http://127.0.0.1:3/set"));
    QTest::newRow("override set before loading still wins")
        << QList<QByteArray>{url1} << override << true << "KepWebServiceUrl"
        << QVariant(QStringLiteral("http://127.0.0.1:3/set"));
    QTest::newRow("no default for the service url") << QList<QByteArray>{} << QVariantMap() << false
                                                    << "KepWebServiceUrl" << QVariant();
    QTest::newRow("no default for test updates") << QList<QByteArray>{url1} << override << false
                                                 << "ShowTestUpdates" << QVariant();
    QTest::newRow("keys are case-sensitive") << QList<QByteArray>{url1} << QVariantMap() << false
                                             << "kepwebserviceurl" << QVariant();
}

void TestSettingsManager::precedence()
{
    QFETCH(QList<QByteArray>, files);
    QFETCH(QVariantMap, overrides);
    QFETCH(bool, overridesFirst);
    QFETCH(QString, key);
    QFETCH(QVariant, expected);
    SettingsManager* settings = SettingsManager::instance();
    const auto setOverrides = [&] {
        for (auto it = overrides.cbegin(); it != overrides.cend(); ++it)
            settings->setProperty(it.key(), it.value());
    };
    if (overridesFirst)
        setOverrides();
    for (int i = 0; i < files.size(); ++i)
        QVERIFY(settings->loadFile(writeFile(QStringLiteral("%1.conf").arg(i), files[i])));
    if (!overridesFirst)
        setOverrides();
    const QVariant value = settings->getProperty(key);
    QCOMPARE(value.isValid(), expected.isValid());
    QCOMPARE(value.toString(), expected.toString());
}

void TestSettingsManager::refusedFile_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("missing") << "missing.conf";
    QTest::newRow("directory") << "dir.conf";
    QTest::newRow("unclosed section") << "broken.conf";
}

void TestSettingsManager::refusedFile()
{
    QFETCH(QString, name);
    SettingsManager* settings = SettingsManager::instance();
    QVERIFY(settings->loadFile(writeFile(QStringLiteral("good.conf"), "KepWebServiceUrl=http://127.0.0.1/\n")));
    QVERIFY(QDir(dir_->path()).mkdir(QStringLiteral("dir.conf")));
    writeFile(QStringLiteral("broken.conf"), "[Kep\nKepWebServiceUrl=http://127.0.0.1/broken\nShowTestUpdates=1\n");
    QVERIFY(!settings->loadFile(dir_->filePath(name)));
    // Nothing of a refused file gets in.
    QCOMPARE(settings->getProperty(QStringLiteral("KepWebServiceUrl")).toString(),
             QStringLiteral("http://127.0.0.1/"));
    QVERIFY(!settings->getProperty(QStringLiteral("ShowTestUpdates")).isValid());
}

void TestSettingsManager::unreadableFile()
{
    REQUIRE_UNPRIVILEGED_HELPER();
    HelperProcess::openToOthers(dir_->path());
    const QString readable = writeFile(QStringLiteral("readable.conf"), "ShowTestUpdates=1\n");
    const QString unreadable = writeFile(QStringLiteral("unreadable.conf"), "ShowTestUpdates=1\n");
    QVERIFY(QFile::setPermissions(readable, QFile::ReadOwner | QFile::ReadGroup | QFile::ReadOther));
    QVERIFY(QFile::setPermissions(unreadable, QFile::Permissions()));
    const auto load = [](const QString& file) {
        return HelperProcess::run({QStringLiteral("settings-load"), file}, QProcessEnvironment::systemEnvironment(),
                                  true)
            .output;
    };
    QCOMPARE(load(readable), QStringLiteral("load=1\n"));
    QCOMPARE(load(unreadable), QStringLiteral("load=0\n"));
}

QTEST_GUILESS_MAIN(TestSettingsManager)
#include "tst_settingsmanager.moc"
