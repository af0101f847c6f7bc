#include "HostOptions.h"

#include <QCommandLineParser>
#include <QRegularExpression>

namespace {

const QString exitStatusText = QStringLiteral(
    "Exit status:\n"
    "  0   the run completed; also when a cancel came while the last product's\n"
    "      request was under way, because the plug-in checks for a cancel only\n"
    "      before each product\n"
    "  1   the plug-in could not be loaded, or the window could not be shown\n"
    "  2   the run was cancelled; the previous run's answer (here: none) is printed\n"
    "  3   with --strict: the run completed, but some product got no answer from\n"
    "      the service (answered from the cache, or not at all)\n"
    "  5   no registered products\n"
    "  64  usage error: unknown option, bad value, unusable settings file\n");

const QString environmentText = QStringLiteral(
    "Environment:\n"
    "  HOME               the user's product database $HOME/vasko/tav/db and,\n"
    "                     unless XDG_CACHE_HOME is set, the reply cache\n"
    "  XDG_CACHE_HOME     where the reply cache lives (vasko/tav/network-cache.sqlite)\n"
    "  TAV_SYSTEM_DB_DIR  the system product database (default /opt/vasko/tav/db)\n"
    "  QT_QPA_PLATFORM    the window system for --gui (offscreen with --screenshot)\n");

const QString settingsText = QStringLiteral(
    "Settings file:\n"
    "  A text file of KEY=VALUE lines at the top level (a [General] line may come\n"
    "  first; any other [section] is refused). Lines starting with ; or # are\n"
    "  comments. Later files win over earlier ones, and --set over all files.\n"
    "  The plug-in reads two settings, with no defaults:\n"
    "    KepWebServiceUrl  the service's http:// or https:// address\n"
    "    ShowTestUpdates   1 to be offered test updates (exactly 1; anything else: no)\n"
    "  Example:\n"
    "    KepWebServiceUrl=http://127.0.0.1:8080/\n"
    "    ShowTestUpdates=0\n");

const QString workingDirectoryText = QStringLiteral(
    "Working directory:\n"
    "  For a product record marked auto-uninstalled (AutoUninstallMode=1) the\n"
    "  plug-in deletes the file named after the record's guid in the current\n"
    "  working directory. Run tav-host where no such file matters.\n");

struct Parser
{
    QCommandLineParser parser;
    QCommandLineOption help{{QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Show this help and exit.")};
    QCommandLineOption version{QStringLiteral("version"),
                               QStringLiteral("Show tav-host's version and the loaded plug-in's name and version, then exit.")};
    QCommandLineOption plugin{QStringLiteral("plugin"),
                              QStringLiteral("The plug-in module to load (default: the one installed beside tav-host)."),
                              QStringLiteral("PATH")};
    QCommandLineOption set{QStringLiteral("set"),
                           QStringLiteral("Set a host setting; wins over settings files. May be repeated."),
                           QStringLiteral("KEY=VALUE")};
    QCommandLineOption settings{QStringLiteral("settings"),
                                QStringLiteral("Read host settings from an INI file (see below). May be repeated."),
                                QStringLiteral("FILE")};
    QCommandLineOption logLevel{QStringLiteral("log-level"),
                                QStringLiteral("Show the plug-in's log lines of level N and above on standard error: "
                                               "0 trace, 1 notices, 2 failures (default 2)."),
                                QStringLiteral("N"), QStringLiteral("2")};
    QCommandLineOption cancelAfter{QStringLiteral("cancel-after"),
                                   QStringLiteral("Cancel the run from a third thread MS milliseconds after it starts. "
                                                  "A cancel that comes before the plug-in has begun its run (0 usually "
                                                  "does) is ignored by the plug-in, and tav-host warns."),
                                   QStringLiteral("MS")};
    QCommandLineOption summary{QStringLiteral("summary"),
                               QStringLiteral("Add one line per product asked and the totals on standard error.")};
    QCommandLineOption strict{QStringLiteral("strict"),
                              QStringLiteral("Exit 3 when some product got no answer from the service.")};
    QCommandLineOption progress{QStringLiteral("progress"),
                                QStringLiteral("Report progress as plain lines on standard error (default: one line "
                                               "rewritten in place when standard error is a terminal, else none).")};
    QCommandLineOption quiet{QStringLiteral("quiet"), QStringLiteral("Report no progress.")};
    QCommandLineOption caFile{QStringLiteral("ca-file"),
                              QStringLiteral("Trust the certificate authorities in this PEM file for HTTPS."),
                              QStringLiteral("PEM")};
    QCommandLineOption gui{QStringLiteral("gui"), QStringLiteral("Show the answer in a window built from the plug-in's controls.")};
    QCommandLineOption screenshot{QStringLiteral("screenshot"),
                                  QStringLiteral("With --gui: draw the window offscreen into this PNG after the answer "
                                                 "and exit."),
                                  QStringLiteral("PNG")};
    QCommandLineOption screenshotAfter{QStringLiteral("screenshot-after"),
                                       QStringLiteral("With --screenshot: draw the window MS milliseconds after the "
                                                      "run starts, whatever it shows then (the checking state)."),
                                       QStringLiteral("MS")};

    Parser()
    {
        parser.setApplicationDescription(
            QStringLiteral("Reference host of the KEP data-provider plug-in: loads the plug-in as the update\n"
                           "manager does, asks it once for the updates and news of the registered products,\n"
                           "writes the consolidated XML on standard output and tells on standard error what\n"
                           "happened: the plug-in's log lines, progress, and a warning for every product\n"
                           "the service did not answer."));
        parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
        parser.addOptions({help, version, plugin, set, settings, logLevel, cancelAfter, summary, strict, progress, quiet,
                           caFile, gui, screenshot, screenshotAfter});
    }
};

bool toNumber(const QString& text, int minimum, int maximum, int* value)
{
    bool ok = false;
    const int number = text.toInt(&ok);
    if (!ok || number < minimum || number > maximum)
        return false;
    *value = number;
    return true;
}

} // namespace

QString HostOptions::helpText()
{
    Parser p;
    QString text = p.parser.helpText();
    // The parser names the running program; a text for people and man pages names the command.
    text.replace(QRegularExpression(QStringLiteral("^Usage: \\S+")), QStringLiteral("Usage: tav-host"));
    return text + QLatin1Char('\n') + exitStatusText + QLatin1Char('\n') + environmentText + QLatin1Char('\n') + settingsText
        + QLatin1Char('\n') + workingDirectoryText;
}

bool HostOptions::parse(const QStringList& arguments, QString* error)
{
    Parser p;
    if (!p.parser.parse(arguments)) {
        *error = p.parser.errorText() + QStringLiteral("\nTry 'tav-host --help' for the options.");
        return false;
    }
    if (!p.parser.positionalArguments().isEmpty()) {
        *error = QStringLiteral("unexpected argument %1\nTry 'tav-host --help' for the options.")
                     .arg(p.parser.positionalArguments().first());
        return false;
    }
    if (p.parser.isSet(p.help)) {
        action = Action::Help;
        return true;
    }
    if (p.parser.isSet(p.version))
        action = Action::Version;
    pluginPath = p.parser.value(p.plugin);
    settingsFiles = p.parser.values(p.settings);
    for (const QString& value : p.parser.values(p.set)) {
        const int equals = value.indexOf(QLatin1Char('='));
        if (equals <= 0) {
            *error = QStringLiteral("--set expects KEY=VALUE, got %1").arg(value);
            return false;
        }
        settings.insert(value.left(equals), value.mid(equals + 1));
    }
    if (!toNumber(p.parser.value(p.logLevel), 0, 2, &logLevel)) {
        *error = QStringLiteral("--log-level expects 0, 1 or 2, got %1").arg(p.parser.value(p.logLevel));
        return false;
    }
    const struct
    {
        const QCommandLineOption& option;
        int* value;
    } durations[] = {{p.cancelAfter, &cancelAfterMs}, {p.screenshotAfter, &screenshotAfterMs}};
    for (const auto& duration : durations) {
        if (p.parser.isSet(duration.option) && !toNumber(p.parser.value(duration.option), 0, 24 * 3600 * 1000, duration.value)) {
            *error = QStringLiteral("--%1 expects milliseconds from 0 to 86400000, got %2")
                         .arg(duration.option.names().first(), p.parser.value(duration.option));
            return false;
        }
    }
    summary = p.parser.isSet(p.summary);
    strict = p.parser.isSet(p.strict);
    if (p.parser.isSet(p.progress) && p.parser.isSet(p.quiet)) {
        *error = QStringLiteral("--progress and --quiet exclude each other");
        return false;
    }
    progress = p.parser.isSet(p.quiet) ? Progress::Off : p.parser.isSet(p.progress) ? Progress::Lines : Progress::Auto;
    caFile = p.parser.value(p.caFile);
    gui = p.parser.isSet(p.gui);
    screenshotPath = p.parser.value(p.screenshot);
    if (p.parser.isSet(p.screenshot) && !gui) {
        *error = QStringLiteral("--screenshot needs --gui");
        return false;
    }
    if (screenshotAfterMs >= 0 && screenshotPath.isEmpty()) {
        *error = QStringLiteral("--screenshot-after needs --screenshot");
        return false;
    }
    return true;
}
