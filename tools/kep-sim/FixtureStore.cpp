#include "FixtureStore.h"

#include <QDir>
#include <QDomDocument>
#include <QDomElement>
#include <QFile>
#include <QFileInfo>

namespace KepSim {

FixtureStore::FixtureStore(const QString& dir)
    : dir_(dir)
{
}

// Ids come from the network: nothing that could leave the fixture folder.
bool FixtureStore::isPlainName(const QString& name)
{
    return !name.isEmpty() && !name.startsWith(QLatin1Char('.')) && !name.contains(QLatin1Char('/'))
        && !name.contains(QLatin1Char('\\')) && !name.contains(QChar(0));
}

bool FixtureStore::hasMedia(const QString& mediaId) const
{
    return isPlainName(mediaId) && QFileInfo(dir_ + QLatin1Char('/') + mediaId).isDir();
}

QString FixtureStore::productXml(const QString& mediaId, const QString& updateId, bool withTestUpdates,
                                 QString* error, QString* file) const
{
    const QString mediaDir = dir_ + QLatin1Char('/') + mediaId;
    QString path = mediaDir + QStringLiteral("/default.xml");
    if (isPlainName(updateId) && QFileInfo::exists(mediaDir + QLatin1Char('/') + updateId + QStringLiteral(".xml")))
        path = mediaDir + QLatin1Char('/') + updateId + QStringLiteral(".xml");
    if (file)
        *file = path;

    QFile input(path);
    if (!input.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read fixture %1: %2").arg(path, input.errorString());
        return QString();
    }
    QDomDocument document;
    QString parseError;
    int line = 0;
    if (!document.setContent(&input, &parseError, &line)) {
        *error = QStringLiteral("fixture %1 is not well-formed (line %2): %3").arg(path).arg(line).arg(parseError);
        return QString();
    }

    // Collect first: removing while walking a live node list skips elements.
    const QDomNodeList updates = document.elementsByTagName(QStringLiteral("update"));
    QList<QDomElement> marked;
    for (int i = 0; i < updates.size(); ++i) {
        const QDomElement update = updates.at(i).toElement();
        if (update.hasAttribute(QStringLiteral("test")))
            marked.append(update);
    }
    for (QDomElement update : marked) {
        const bool testOnly = update.attribute(QStringLiteral("test")) == QLatin1String("1");
        if (testOnly && !withTestUpdates)
            update.parentNode().removeChild(update);
        else
            update.removeAttribute(QStringLiteral("test"));
    }
    return document.toString(2);
}

} // namespace KepSim
