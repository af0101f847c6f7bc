// Reference host: loads the KEP plug-in exactly as the update manager does, asks it for data
// once and prints the answer.

#include "HostOptions.h"
#include "HostWindow.h"
#include "LogTap.h"
#include "PluginHost.h"
#include "ProgressReport.h"
#include "RunSummary.h"
#include "RunWarnings.h"
#include "SettingsCheck.h"

#include "tavcore/Logger.h"
#include "tavcore/SettingsManager.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QGuiApplication>
#include <QSslConfiguration>

#include <cstdio>
#include <memory>

#include <unistd.h>

namespace {

int fail(int code, const QString& reason)
{
    std::fprintf(stderr, "tav-host: %s\n", qUtf8Printable(reason));
    return code;
}

void warn(const QString& text)
{
    std::fprintf(stderr, "tav-host: warning: %s\n", qUtf8Printable(text));
}

// Refuses what the settings manager would silently ignore, and points at near-miss keys.
bool checkSettings(const HostOptions& options, QString* error)
{
    QStringList keys = options.settings.keys();
    for (const QString& file : options.settingsFiles) {
        QStringList fileKeys;
        *error = SettingsCheck::checkFile(file, &fileKeys);
        if (!error->isEmpty())
            return false;
        keys += fileKeys;
    }
    keys.removeDuplicates();
    for (const QString& key : keys) {
        const QString nearMiss = SettingsCheck::nearMiss(key);
        if (!nearMiss.isEmpty())
            warn(nearMiss);
    }
    return true;
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

// A window needs a display unless it is only drawn into a picture; say so instead of letting
// the platform plug-in abort.
bool prepareGuiPlatform(const HostOptions& options, QString* error)
{
    if (!options.screenshotPath.isEmpty()) {
        if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
            qputenv("QT_QPA_PLATFORM", "offscreen");
        if (qEnvironmentVariableIsEmpty("QT_QUICK_BACKEND"))
            qputenv("QT_QUICK_BACKEND", "software");
        return true;
    }
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM") && qEnvironmentVariableIsEmpty("DISPLAY")
        && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")) {
        *error = QStringLiteral("--gui needs a display (DISPLAY or WAYLAND_DISPLAY); "
                                "use --screenshot PNG to draw the window without one");
        return false;
    }
    return true;
}

// Prints the answer the way the command-line run does: its UTF-8 text up to the first NUL,
// then a newline. Converted in slices, because one UTF-8 copy of a large answer is allocated
// at three bytes a character and was the largest block of a run.
void printAnswer(const QString& data)
{
    constexpr int slice = 1 << 16;
    const int nul = data.indexOf(QChar(0));
    const int end = nul < 0 ? data.size() : nul;
    for (int at = 0; at < end;) {
        int length = qMin(slice, end - at);
        // A surrogate pair stays in one slice.
        if (at + length < end && data.at(at + length - 1).isHighSurrogate())
            --length;
        const QByteArray bytes = data.midRef(at, length).toUtf8();
        std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
        at += length;
    }
    if (!data.isEmpty())
        std::fputc('\n', stdout);
    std::fflush(stdout);
}

int runWindow(QCoreApplication& app, PluginHost& host, RunSummary& summary, const HostOptions& options,
              const QElapsedTimer& clock)
{
    auto window = std::make_unique<HostWindow>(&host, &summary);
    window->setScreenshotPath(options.screenshotPath, options.screenshotAfterMs);
    const QString reason = window->load();
    if (!reason.isEmpty())
        return fail(1, reason);
    int code = -1;
    QObject::connect(window.get(), &HostWindow::firstAnswerShown, &app, [&clock] {
        std::fprintf(stderr, "tav-host: first answer shown after %lld ms\n", static_cast<long long>(clock.elapsed()));
    });
    QObject::connect(window.get(), &HostWindow::screenshotSaved, &app, [&](const QString& error) {
        if (!error.isEmpty())
            code = fail(1, error);
        app.quit();
    });
    window->checkForUpdates(options.cancelAfterMs);
    app.exec();
    // Closed during a run: the plug-in must not be deleted under a getData call.
    if (window->busy()) {
        QEventLoop wait;
        QObject::connect(window.get(), &HostWindow::busyChanged, &wait, &QEventLoop::quit);
        host.cancel();
        wait.exec();
    }
    printAnswer(window->data());
    const int status = window->status();
    window.reset();
    // The lists' entries are released with deleteLater; the event loop has already ended.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return code >= 0 ? code : status;
}

int printVersion(const HostOptions& options)
{
    std::fprintf(stdout, "tav-host %s\n", KEP_VERSION);
    PluginHost host;
    const QString path = options.pluginPath.isEmpty() ? PluginHost::defaultPluginPath() : options.pluginPath;
    const QString reason = host.load(path);
    if (!reason.isEmpty())
        return fail(1, reason);
    std::fprintf(stdout, "plug-in %s %s (%s)\n", qUtf8Printable(host.pluginName()), qUtf8Printable(host.pluginVersion()),
                 qUtf8Printable(path));
    return 0;
}

ProgressReport::Mode progressMode(HostOptions::Progress asked)
{
    switch (asked) {
    case HostOptions::Progress::Off:
        return ProgressReport::Mode::Off;
    case HostOptions::Progress::Lines:
        return ProgressReport::Mode::Lines;
    case HostOptions::Progress::Auto:
        break;
    }
    return ::isatty(::fileno(stderr)) ? ProgressReport::Mode::InPlace : ProgressReport::Mode::Off;
}

} // namespace

int main(int argc, char** argv)
{
    QElapsedTimer clock;
    clock.start();
    HostOptions options;
    QString error;
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));
    if (!options.parse(arguments, &error))
        return fail(64, error);
    if (options.action != HostOptions::Action::Run) {
        QCoreApplication app(argc, argv);
        if (options.action == HostOptions::Action::Version)
            return printVersion(options);
        std::fprintf(stdout, "%s", qUtf8Printable(HostOptions::helpText()));
        return 0;
    }
    if (!checkSettings(options, &error))
        return fail(64, error);
    if (options.gui && !prepareGuiPlatform(options, &error))
        return fail(1, error);
    // The window needs a GUI application object, and it has to exist before anything else.
    std::unique_ptr<QCoreApplication> application(options.gui ? new QGuiApplication(argc, argv)
                                                              : new QCoreApplication(argc, argv));
    QCoreApplication& app = *application;
    if (!applySettings(options, &error))
        return fail(64, error);
    const QVariant url = TavCoreShared::TavSettings::SettingsManager::instance()->getProperty(QStringLiteral("KepWebServiceUrl"));

    RunSummary summary;
    // Only the report shows each product's updates and news.
    summary.countRecords(options.summary);
    LogTap tap(&summary, options.logLevel);
    ProgressReport progress(progressMode(options.progress), url.toString(), stderr);
    QObject::connect(&summary, &RunSummary::productStarted, &progress, &ProgressReport::productStarted);
    QObject::connect(&summary, &RunSummary::productEnded, &progress, &ProgressReport::productEnded);

    PluginHost host;
    summary.follow(&host);
    const QString reason = host.load(options.pluginPath.isEmpty() ? PluginHost::defaultPluginPath() : options.pluginPath);
    if (!reason.isEmpty())
        return fail(1, reason);

    int status = 0;
    if (options.gui) {
        status = runWindow(app, host, summary, options, clock);
    } else {
        QObject::connect(&host, &PluginHost::finished, &app, [&](int runStatus, const QString& data) {
            status = runStatus;
            printAnswer(data);
            app.quit();
        }, Qt::QueuedConnection);
        host.start(options.cancelAfterMs);
        app.exec();
    }
    host.shutdown();
    progress.finish();
    summary.finish();

    if (options.summary) {
        for (const QString& line : summary.report())
            std::fprintf(stderr, "%s\n", qUtf8Printable(line));
    }
    const RunWarnings warnings(summary.outcomes(), url, summary.cancelLost());
    for (const QString& line : warnings.lines())
        std::fprintf(stderr, "%s\n", qUtf8Printable(line));
    if (options.strict && status == 0 && warnings.incomplete())
        return 3;
    return status;
}
