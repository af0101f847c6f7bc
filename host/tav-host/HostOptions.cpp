#include "HostOptions.h"

namespace {

bool toNumber(const QString& text, int minimum, int* value)
{
    bool ok = false;
    const int number = text.toInt(&ok);
    if (ok && number >= minimum)
        *value = number;
    return ok && number >= minimum;
}

} // namespace

QString HostOptions::usage()
{
    return QStringLiteral("usage: tav-host [--plugin PATH] [--set KEY=VALUE]... [--settings FILE] [--log-level N]\n"
                          "                [--cancel-after MS] [--summary] [--ca-file PEM] [--gui [--screenshot PNG]]");
}

bool HostOptions::parse(const QStringList& arguments, QString* error)
{
    for (int i = 1; i < arguments.size(); ++i) {
        const QString option = arguments.at(i);
        if (option == QLatin1String("--help") || option == QLatin1String("-h")) {
            help = true;
            continue;
        }
        if (option == QLatin1String("--summary") || option == QLatin1String("--gui")) {
            (option == QLatin1String("--gui") ? gui : summary) = true;
            continue;
        }
        const bool takesValue = option == QLatin1String("--plugin") || option == QLatin1String("--set")
            || option == QLatin1String("--settings") || option == QLatin1String("--log-level")
            || option == QLatin1String("--cancel-after") || option == QLatin1String("--ca-file")
            || option == QLatin1String("--screenshot");
        if (!takesValue) {
            *error = QStringLiteral("unknown argument %1").arg(option);
            return false;
        }
        if (++i >= arguments.size()) {
            *error = QStringLiteral("%1 needs a value").arg(option);
            return false;
        }
        const QString value = arguments.at(i);
        if (option == QLatin1String("--plugin")) {
            pluginPath = value;
        } else if (option == QLatin1String("--settings")) {
            settingsFiles.append(value);
        } else if (option == QLatin1String("--ca-file")) {
            caFile = value;
        } else if (option == QLatin1String("--screenshot")) {
            screenshotPath = value;
        } else if (option == QLatin1String("--set")) {
            const int equals = value.indexOf(QLatin1Char('='));
            if (equals <= 0) {
                *error = QStringLiteral("--set expects KEY=VALUE, got %1").arg(value);
                return false;
            }
            settings.insert(value.left(equals), value.mid(equals + 1));
        } else if (option == QLatin1String("--log-level") ? !toNumber(value, 0, &logLevel)
                                                           : !toNumber(value, 0, &cancelAfterMs)) {
            *error = QStringLiteral("%1 expects a number of 0 or more, got %2").arg(option, value);
            return false;
        }
    }
    if (!screenshotPath.isEmpty() && !gui) {
        *error = QStringLiteral("--screenshot needs --gui");
        return false;
    }
    return true;
}
