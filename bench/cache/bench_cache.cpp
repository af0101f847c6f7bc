// The reply cache stores every answered product. Its insert, against the plain way of doing
// the same with Qt's SQL classes (a statement prepared per insert, SQLite's default page
// cache), in databases of their own in a temporary directory; the two alternate.
// usage: bench_cache [--quick]

#include "BenchStats.h"

#include "tavcore/NetworkCache.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QVariant>

#include <cstdio>

using TavCoreShared::Network::NetworkCache;

namespace {

// About the size of one product's reply in the end-to-end data.
QString reply(int i)
{
    return QStringLiteral("<product_info><return_code>0</return_code>%1</product_info>")
        .arg(QStringLiteral("<update><id>%1</id><title>Update of product %1</title></update>").arg(i).repeated(90));
}

class PlainCache
{
public:
    explicit PlainCache(const QString& path)
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("plain"));
        db.setDatabaseName(path);
        db.open();
        QSqlQuery(db).exec(QStringLiteral("PRAGMA journal_mode=WAL"));
        QSqlQuery(db).exec(QStringLiteral("PRAGMA synchronous=NORMAL"));
        QSqlQuery(db).exec(QStringLiteral("CREATE TABLE IF NOT EXISTS replies (key TEXT PRIMARY KEY, value TEXT NOT NULL)"));
    }
    ~PlainCache()
    {
        QSqlDatabase::database(QStringLiteral("plain"), false).close();
        QSqlDatabase::removeDatabase(QStringLiteral("plain"));
    }
    bool insert(const QString& key, const QString& value)
    {
        QSqlQuery query(QSqlDatabase::database(QStringLiteral("plain"), false));
        query.prepare(QStringLiteral("INSERT OR REPLACE INTO replies (key, value) VALUES (?, ?)"));
        query.addBindValue(key);
        query.addBindValue(value);
        return query.exec();
    }
};

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const bool quick = app.arguments().contains(QStringLiteral("--quick"));
    const int products = 1000;
    const int rounds = quick ? 3 : 7;
    QVector<QString> replies;
    for (int i = 0; i < products; ++i)
        replies.append(reply(i));
    QVector<double> oursMs, plainMs, ratios;
    for (int round = 0; round < rounds; ++round) {
        QTemporaryDir dir;
        NetworkCache ours(dir.filePath(QStringLiteral("ours.sqlite")));
        PlainCache plain(dir.filePath(QStringLiteral("plain.sqlite")));
        // The first insert opens the database; both pay for it outside the timing.
        ours.insert(QStringLiteral("warm"), replies[0]);
        plain.insert(QStringLiteral("warm"), replies[0]);
        double times[2] = {0, 0};
        for (int pass = 0; pass < 2; ++pass) {
            const bool oursNow = (pass == 0) == (round % 2 == 0);
            QElapsedTimer clock;
            clock.start();
            bool stored = true;
            for (int i = 0; i < products; ++i) {
                const QString key = QStringLiteral("gtpi__1_M%1").arg(i);
                if (oursNow)
                    ours.insert(key, replies[i]);
                else
                    stored = plain.insert(key, replies[i]) && stored;
            }
            times[oursNow ? 0 : 1] = clock.nsecsElapsed() / 1e6;
            if (!stored || (oursNow && ours.data(QStringLiteral("gtpi__1_M7")) != replies[7])) {
                std::fprintf(stderr, "bench_cache: a reply was not stored\n");
                return 1;
            }
        }
        oursMs.append(times[0]);
        plainMs.append(times[1]);
        ratios.append(times[0] / times[1]);
    }
    using namespace KepBench;
    std::printf("COMPARE %d inserts of %d characters, %d rounds: NetworkCache %.1f ms (%.1f us each), "
                "prepared per insert with the default page cache %.1f ms, ratio %.2f (%.2f .. %.2f)\n",
                products, int(replies[0].size()), rounds, median(oursMs), 1000 * median(oursMs) / products,
                median(plainMs), median(ratios), minimum(ratios), maximum(ratios));
    return 0;
}
