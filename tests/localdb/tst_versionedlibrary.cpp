#include "localdb/VersionedLibrary.h"

#include <QtTest>

using KepPlugin::VersionedLibrary;

// Libraries in a directory on the executable's DT_RPATH whose function returns a marker: 1 in
// libNAME.so.1, 0 in libNAME.so, 2 in libNAME.so.2.
class TestVersionedLibrary : public QObject
{
    Q_OBJECT
private slots:
    void lookup_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<int>("marker"); // -1: nothing found
        QTest::newRow("only the versioned file, as a runtime package ships it") << "kepmarker_versioned" << 1;
        QTest::newRow("only the unversioned file") << "kepmarker_unversioned" << 0;
        QTest::newRow("both: the versioned file wins") << "kepmarker_both" << 1;
        QTest::newRow("another major version is not taken") << "kepmarker_other" << -1;
        QTest::newRow("no such library") << "kepmarker_absent" << -1;
    }
    void lookup()
    {
        QFETCH(QString, name);
        QFETCH(int, marker);
        VersionedLibrary library(name, 1);
        using MarkerFn = int (*)();
        for (int attempt = 0; attempt < 2; ++attempt) {
            const auto function = reinterpret_cast<MarkerFn>(library.resolve("kepVersionMarker"));
            QCOMPARE(function ? function() : -1, marker);
        }
    }
};

QTEST_GUILESS_MAIN(TestVersionedLibrary)
#include "tst_versionedlibrary.moc"
