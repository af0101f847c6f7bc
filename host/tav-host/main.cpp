// Reference host: loads the KEP plug-in exactly as the update manager does, asks it for data
// once and prints the answer.

#include "HostOptions.h"
#include "PluginHost.h"
#include "RunSummary.h"

#include "tavcore/Logger.h"
#include "tavcore/SettingsManager.h"

#include <QCoreApplication>
#include <QSslConfiguration>

#include <cstdio>

namespace {

RunSummary* summary_ = nullptr;
int printLevel_ = 2;

// The plug-in's lines start with their level; with --summary the plug-in logs everything and
// only the lines at or above the asked level are shown.
void summaryHandler(QtMsgType, const QMessageLogContext&, const QString& message)
{
    summary_->feed(message);
    bool isNumber = false;
    const int level = message.section(QLatin1Char(' '), 0, 0).toInt(&isNumber);
    if (!isNumber || level >= printLevel_)
        std::fprintf(stderr, "%s\n", qUtf8Printable(message));
}

int fail(int code, const QString& reason)
{
    std::fprintf(stderr, "tav-host: %s\n", qUtf8Printable(reason));
    return code;
}

bool applySettings(const HostOptions& options, QString* error)
{
    auto* settings = TavCoreShared::TavSettings::SettingsManager::instance();
    for (const QString& file : options.settingsFiles) {
        if (!settings->loadFile(file)) {
            *error = QStringLiteral("cannot read settings file %1").arg(file);
            return false;
        }
    }
    for (auto it = options.settings.cbegin(); it != options.settings.cend(); ++it)
        settings->setProperty(it.key(), it.value());
    if (!options.caFile.isEmpty()) {
        QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
        if (!tls.addCaCertificates(options.caFile)) {
            *error = QStringLiteral("no certificate found in %1").arg(options.caFile);
            return false;
        }
        QSslConfiguration::setDefaultConfiguration(tls);
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    HostOptions options;
    QString error;
    if (!options.parse(app.arguments(), &error) || !applySettings(options, &error))
        return fail(64, error + QLatin1Char('\n') + HostOptions::usage());

    RunSummary summary;
    printLevel_ = options.logLevel;
    TavCoreShared::TavLogger::Logger::instance()->setLogLevel(options.summary ? 0 : options.logLevel);
    if (options.summary) {
        summary_ = &summary;
        qInstallMessageHandler(summaryHandler);
    }

    PluginHost host;
    const QString reason = host.load(options.pluginPath.isEmpty() ? PluginHost::defaultPluginPath() : options.pluginPath);
    if (!reason.isEmpty())
        return fail(1, reason);

    int status = 0;
    QObject::connect(&host, &PluginHost::finished, &app, [&](int runStatus, const QString& data) {
        status = runStatus;
        if (!data.isEmpty())
            std::fprintf(stdout, "%s\n", qUtf8Printable(data));
        std::fflush(stdout);
        app.quit();
    }, Qt::QueuedConnection);
    host.start(options.cancelAfterMs);
    app.exec();
    host.shutdown();

    if (options.summary) {
        qInstallMessageHandler(nullptr);
        summary.finish();
        for (const QString& line : summary.report())
            std::fprintf(stderr, "%s\n", qUtf8Printable(line));
    }
    return status;
}
