#include "FuzzSupport.h"

#include "tavcore/Logger.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

#include <cstdio>
#include <cstdlib>
#include <pwd.h>
#include <unistd.h>

namespace FuzzSupport {

namespace {

void discardMessage(QtMsgType, const QMessageLogContext&, const QString&)
{
}

QString envDir(const char* name)
{
    const char* value = std::getenv(name);
    return value && *value ? QDir::cleanPath(QFile::decodeName(value)) : QString();
}

} // namespace

void setUp(int* argc, char*** argv)
{
    const QString home = envDir("HOME");
    const QString systemDb = envDir("TAV_SYSTEM_DB_DIR");
    const passwd* account = getpwuid(getuid());
    const QString realHome = account ? QDir::cleanPath(QFile::decodeName(account->pw_dir)) : QString();
    if (home.isEmpty() || systemDb.isEmpty() || home == realHome || systemDb.startsWith(QLatin1String("/opt/"))) {
        std::fprintf(stderr, "fuzz: set HOME and TAV_SYSTEM_DB_DIR to temporary directories (./dev fuzz does)\n");
        std::abort();
    }
    QDir().mkpath(home + QStringLiteral("/vasko/tav/db"));
    QDir().mkpath(systemDb);
    static QCoreApplication app(*argc, *argv);
    // Every log line is built, so its code runs too; none is printed.
    TavCoreShared::TavLogger::Logger::instance()->setLogLevel(0);
    qInstallMessageHandler(discardMessage);
}

QByteArray bytes(const uint8_t* data, size_t size)
{
    return QByteArray(reinterpret_cast<const char*>(data), int(size));
}

QList<QByteArray> split(const QByteArray& input, int maxParts)
{
    static const QByteArray marker("\n%%\n");
    QList<QByteArray> parts;
    int from = 0;
    while (parts.size() + 1 < maxParts) {
        const int at = input.indexOf(marker, from);
        if (at < 0)
            break;
        parts << input.mid(from, at - from);
        from = at + marker.size();
    }
    parts << input.mid(from);
    return parts;
}

QString freshPath(const QString& suffix)
{
    static quint64 counter = 0;
    return QDir::homePath() + QStringLiteral("/input-") + QString::number(++counter) + suffix;
}

bool writeFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(content) == content.size();
}

void fail(const char* what, const QString& detail)
{
    std::fprintf(stderr, "fuzz: %s: %s\n", what, detail.toLocal8Bit().constData());
    std::abort();
}

} // namespace FuzzSupport
