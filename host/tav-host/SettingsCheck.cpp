#include "SettingsCheck.h"

#include <QFile>
#include <QFileInfo>
#include <QTextCodec>

namespace {
// A settings file is a few lines; anything much larger is not one.
constexpr qint64 maxSettingsBytes = 1 << 20;

QString folded(QString key)
{
    return key.remove(QLatin1Char('_')).remove(QLatin1Char('-')).remove(QLatin1Char(' ')).toLower();
}
} // namespace

const QStringList& SettingsCheck::knownKeys()
{
    static const QStringList keys{QStringLiteral("KepWebServiceUrl"), QStringLiteral("ShowTestUpdates")};
    return keys;
}

QString SettingsCheck::checkFile(const QString& path, QStringList* keys)
{
    const QFileInfo info(path);
    if (!info.exists())
        return QStringLiteral("settings file %1 does not exist").arg(path);
    if (!info.isFile())
        return QStringLiteral("settings file %1 is not a regular file").arg(path);
    if (info.size() > maxSettingsBytes)
        return QStringLiteral("settings file %1 is too large for a settings file (%2 bytes)").arg(path).arg(info.size());
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("cannot read settings file %1: %2").arg(path, file.errorString());
    const QByteArray bytes = file.readAll();
    const int nul = bytes.indexOf('\0');
    QTextCodec::ConverterState state;
    const QString text = QTextCodec::codecForName("UTF-8")->toUnicode(bytes.constData(), bytes.size(), &state);
    if (nul >= 0 || state.invalidChars > 0)
        return QStringLiteral("settings file %1 is not a text file (binary content%2)")
            .arg(path, nul >= 0 ? QStringLiteral(" at byte %1").arg(nul) : QString());
    int lineNumber = 0;
    QStringList found;
    for (const QString& raw : text.split(QLatin1Char('\n'))) {
        ++lineNumber;
        const QString line = raw.trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char(';')) || line.startsWith(QLatin1Char('#')))
            continue;
        if (line.startsWith(QLatin1Char('['))) {
            if (line.compare(QLatin1String("[General]"), Qt::CaseInsensitive) == 0)
                continue;
            return QStringLiteral("settings file %1, line %2: keys under the section %3 are not read; "
                                  "put KEY=VALUE lines at the top, before any [section]")
                .arg(path).arg(lineNumber).arg(line);
        }
        const int equals = line.indexOf(QLatin1Char('='));
        if (equals <= 0)
            return QStringLiteral("settings file %1, line %2: expected KEY=VALUE, got \"%3\"").arg(path).arg(lineNumber).arg(line.left(80));
        found.append(line.left(equals).trimmed());
    }
    if (found.isEmpty())
        return QStringLiteral("settings file %1 holds no KEY=VALUE lines").arg(path);
    if (keys)
        *keys = found;
    return QString();
}

QString SettingsCheck::nearMiss(const QString& key)
{
    for (const QString& known : knownKeys()) {
        if (key != known && folded(key) == folded(known))
            return QStringLiteral("the setting %1 is not read by the plug-in (names are case-sensitive); did you mean %2?")
                .arg(key, known);
    }
    return QString();
}
