#include "../network/FakeHttpServer.h"
#include "Compressed.h"
#include "HostLimits.h"
#include "KepSimProcess.h"
#include "TestDb.h"

#include <QSqlDatabase>
#include <QSqlQuery>
#include <QtTest>

#include <zlib.h>

namespace {

const QByteArray ok = "HTTP/1.1 200 OK\r\n";
const QString tooLarge = "reply error [299]: Answer larger than 4194304 bytes, aborted";

QByteArray announced(const QByteArray& body, const QByteArray& headers = {})
{
    return ok + headers + "Content-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body;
}

// gzip of `times` megabytes of zeros, compressed a megabyte at a time.
QByteArray gzipOfZeros(int times)
{
    z_stream stream{};
    deflateInit2(&stream, 9, Z_DEFLATED, 15 + 16, 9, Z_DEFAULT_STRATEGY);
    QByteArray zeros(1 << 20, '\0'), out;
    QByteArray buffer(1 << 16, Qt::Uninitialized);
    for (int round = 0; round <= times; ++round) {
        stream.next_in = reinterpret_cast<Bytef*>(zeros.data());
        stream.avail_in = round < times ? uInt(zeros.size()) : 0;
        do {
            stream.next_out = reinterpret_cast<Bytef*>(buffer.data());
            stream.avail_out = uInt(buffer.size());
            deflate(&stream, round < times ? Z_NO_FLUSH : Z_FINISH);
            out.append(buffer.constData(), buffer.size() - int(stream.avail_out));
        } while (stream.avail_out == 0);
    }
    deflateEnd(&stream);
    return out;
}

QString markupRefused(const char* what) { return QString("reply error [299]: Answer markup %1, refused").arg(what); }

} // namespace

// The reference host and the plug-in as a child process against hostile answers from a fake
// service in this process: each run ends on time and within 512 MB of address space, shows the
// product from the cache it had, and leaves the cached entry as it was, byte for byte.
class TestHostileAnswers : public QObject
{
    Q_OBJECT
    KepSimProcess healthy_;
    QTemporaryDir root_;
    const QString cacheFile_ = root_.path() + "/home/.cache/vasko/tav/network-cache.sqlite";
    const QString key_ = "gtpi__1200_MEDIA-STUDIO-2014";
    struct Result { QString status; QByteArray out; QString err; };

    // tav-host under the limits, the fake server served by this event loop meanwhile.
    Result run(const QString& url)
    {
        QProcess host;
        const QStringList limits = hostLimits(60);
        host.start(limits.first(), limits.mid(1) + QStringList{"env", "HOME=" + root_.path() + "/home", "TAV_SYSTEM_DB_DIR=" + root_.path() + "/sysdb",
                               "XDG_CACHE_HOME=" + root_.path() + "/home/.cache", TAV_HOST_PATH, "--set", "KepWebServiceUrl=" + url, "--summary"});
        QSignalSpy finished(&host, SIGNAL(finished(int, QProcess::ExitStatus)));
        const bool onTime = finished.wait(30000) || finished.count() > 0;
        if (!onTime) {
            host.kill();
            host.waitForFinished();
        }
        const QString status = !onTime ? "timed out" : host.exitStatus() != QProcess::NormalExit ? "crashed"
                                                                                                : QString("exit %1").arg(host.exitCode());
        return Result{status, host.readAllStandardOutput(), QString::fromUtf8(host.readAllStandardError())};
    }

    QString cachedEntry(const QString& replacement = QString())
    {
        QString value = "no entry";
        {
            QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "hostile");
            db.setDatabaseName(cacheFile_);
            db.open();
            QSqlQuery query(db);
            if (!replacement.isNull()) {
                query.prepare("UPDATE replies SET value = ? WHERE key = ?");
                query.addBindValue(replacement);
                query.addBindValue(key_);
                query.exec();
            }
            query.prepare("SELECT value FROM replies WHERE key = ?");
            query.addBindValue(key_);
            if (query.exec() && query.next())
                value = query.value(0).toString();
        }
        QSqlDatabase::removeDatabase("hostile");
        return value;
    }

private slots:
    void initTestCase()
    {
        qRegisterMetaType<QProcess::ExitStatus>();
        if (QProcess::execute("prlimit", {"--as=536870912", "true"}) != 0)
            QSKIP("prlimit is needed to bound the host's address space");
        QVERIFY2(healthy_.start(KEP_SIM_PATH, KEP_FIXTURES_DIR), qPrintable(healthy_.errorText()));
        QVERIFY(TestDb::writeFile(root_.path() + "/home/vasko/tav/db/{S}.ini", "MediaID=MEDIA-STUDIO-2014\nUpdateID=1200\n"));
        QDir().mkpath(root_.path() + "/sysdb");
    }

    void hostileAnswer_data()
    {
        QTest::addColumn<QByteArray>("answer"); // canned bytes
        QTest::addColumn<QByteArray>("more");   // repeated after them, up to `times` (-1: for ever)
        QTest::addColumn<int>("times");
        QTest::addColumn<QString>("cached");    // replaces the cached entry first, with the service down
        QTest::addColumn<QString>("line");      // the plug-in's failure line, after its prefix
        QTest::addColumn<QString>("shown");     // where the product's answer came from
        const QByteArray deep = QByteArray("<div>").repeated(80000) + "x";
        const QString deepRefused = markupRefused("nested deeper than 64 elements");
        auto row = [](const char* name, const QByteArray& answer, const QString& line, const QString& shown = "cache",
                      const QByteArray& more = {}, int times = 0, const QString& cached = QString()) {
            QTest::newRow(name) << answer << more << times << cached << line << shown;
        };
        // 1 MB on the wire, 1 GB inflated.
        row("gzip bomb", announced(gzipOfZeros(1024), "Content-Encoding: gzip\r\n"), tooLarge);
        const QByteArray chunk = QByteArray::number(1 << 16, 16) + "\r\n" + QByteArray(1 << 16, 'A') + "\r\n";
        row("endless chunked body", ok + "Transfer-Encoding: chunked\r\n\r\n", tooLarge, "cache", chunk, -1);
        row("100 MB answer, length not announced", ok + "Connection: close\r\n\r\n", tooLarge, "cache", QByteArray(1 << 20, 'A'), 100);
        row("length announced past the bound", ok + "Content-Length: 5242880\r\n\r\n", tooLarge, "cache", QByteArray(1 << 20, 'A'), 5);
        // Each of these once held the host's main thread from seconds to minutes, or crashed it.
        row("80,000 nested elements", announced(deep), deepRefused);
        row("cell spans", announced("<table>" + QByteArray("<tr><td colspan=64 rowspan=64>x").repeated(1000)),
            markupRefused("holds a table"));
        row("style rules times elements",
            announced("<style>" + QByteArray("p.c{color:red} ").repeated(2000) + "</style>" + QByteArray("<p class=c>x").repeated(2000)),
            markupRefused("holds a style sheet"));
        row("8,000 images", announced(QByteArray("<img src=x>").repeated(8000)), markupRefused("has more than 1024 tags"));
        row("a link, host without a GUI", announced("<a href=x>y</a>"), markupRefused("holds a link"));
        // An entry stored before the limits: refused like an answer, so offline runs go on.
        row("hostile cached entry", {}, "cached data refused: Answer markup nested deeper than 64 elements, refused", "none", {}, 0, deep);
        const QByteArray gzipped = compressed(QByteArray("<p>Back at 6 pm.</p>").repeated(2000), true);
        row("gzip cut short", ok + "Content-Encoding: gzip\r\nContent-Length: " + QByteArray::number(gzipped.size()) + "\r\n\r\n"
            + gzipped.left(gzipped.size() / 2), "reply error [");
        QByteArray corrupt = gzipped;
        corrupt[corrupt.size() / 2] = char(corrupt[corrupt.size() / 2] ^ 0x55);
        row("corrupt gzip", announced(corrupt, "Content-Encoding: gzip\r\n"), "reply error [");
    }

    void hostileAnswer()
    {
        QFETCH(QByteArray, answer);
        QFETCH(QByteArray, more);
        QFETCH(int, times);
        QFETCH(QString, cached);
        QFETCH(QString, line);
        QFETCH(QString, shown);
        const Result first = run(healthy_.url());
        QVERIFY2(first.status == "exit 0" && first.err.contains("(service 1, "), qPrintable(first.err));
        const QString before = cachedEntry(cached);
        QVERIFY(before.contains("GetTAVProductInfoResult") || before == cached);

        FakeHttpServer server(answer);
        if (!more.isEmpty())
            server.more = [more, times]() mutable { return times-- == 0 ? QByteArray() : more; };
        const Result hostile = run(cached.isNull() ? server.url() : "http://127.0.0.1:1/");
        const QString where = QRegularExpression("\nsummary: media .* ms, (\\w+), ").match("\n" + hostile.err).captured(1);
        const QString lineFound = hostile.err.contains("2 \"NetworkManager::sendRequestToKep: " + line) ? "line" : "no line";
        const QString entry = cachedEntry() == before ? "entry kept" : "entry changed";
        const int updates = hostile.out.count("<update>"), expected = shown == "cache" ? first.out.count("<update>") : 0;
        QCOMPARE(QStringList({hostile.status, where, QString::number(updates), lineFound, entry}),
                 QStringList({"exit 0", shown, QString::number(expected), "line", "entry kept"}));
    }
};

QTEST_GUILESS_MAIN(TestHostileAnswers)
#include "tst_hostileanswers.moc"
