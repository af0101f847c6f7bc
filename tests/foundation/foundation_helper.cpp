// Child process for the foundation suites: runs one step of the host stand-ins in a process
// of its own (another environment, another user, or a death without clean-up).
#include "localdb/KepKeys.h"
#include "regtool/ProductRecord.h"
#include "tavcore/NetworkCache.h"
#include "tavcore/SettingsManager.h"

#include <QCoreApplication>
#include <QTextStream>

#include <csignal>

namespace {

QTextStream& out()
{
    static QTextStream stream(stdout);
    return stream;
}

std::string narrow(const QString& text)
{
    return text.toLocal8Bit().toStdString();
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments().mid(1);
    const QString mode = args.value(0);
    if (mode == QLatin1String("keys") && args.size() == 1) {
        out() << "user=" << KepPlugin::Keys::USER_DB_DIR << '\n'
              << "system=" << KepPlugin::Keys::SYSTEM_DB_DIR << '\n'
              << "tool-user=" << QString::fromStdString(ProductRecord::userDbDir()) << '\n'
              << "tool-system=" << QString::fromStdString(ProductRecord::systemDbDir()) << '\n';
        return 0;
    }
    if (mode == QLatin1String("register-user") && args.size() == 2) {
        out() << "register=" << registerProduct(narrow(args[1]).c_str(), "n", "v", "m", "p", "u", 1) << '\n';
        return 0;
    }
    if (mode == QLatin1String("settings-load") && args.size() == 2) {
        out() << "load=" << int(TavCoreShared::TavSettings::SettingsManager::instance()->loadFile(args[1])) << '\n';
        return 0;
    }
    if (mode == QLatin1String("record-save") && args.size() == 4) {
        ProductRecord record(narrow(args[1]), false);
        const bool loaded = record.load();
        out() << "load=" << int(loaded) << " ProductName=" << QString::fromStdString(record.getValue("ProductName"));
        if (loaded) {
            record.setValue(narrow(args[2]), narrow(args[3]));
            out() << " save=" << int(record.save());
        }
        out() << '\n';
        return 0;
    }
    if (mode == QLatin1String("cache-insert-and-die") && args.size() == 4) {
        TavCoreShared::Network::NetworkCache cache(args[1]);
        cache.insert(args[2], args[3]);
        out().flush();
        std::raise(SIGKILL);
    }
    out() << "usage: keys | register-user GUID | settings-load FILE | record-save GUID KEY VALUE"
             " | cache-insert-and-die PATH KEY VALUE\n";
    return 64;
}
