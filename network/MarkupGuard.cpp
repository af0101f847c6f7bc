#include "MarkupGuard.h"

#include "BoundedReplyReader.h"

#include <QGuiApplication>
#include <QStringList>

namespace KepPlugin {

namespace {

bool isNameChar(QChar c)
{
    return c.isLetterOrNumber() || c == QLatin1Char(':') || c == QLatin1Char('-') || c == QLatin1Char('_')
        || c == QLatin1Char('.');
}

// The tag name from `at` on, lower-cased, after the blanks the reader skips; `at` moves past it.
QString tagName(const QString& text, int& at)
{
    while (at < text.size() && text[at].isSpace())
        ++at;
    const int start = at;
    while (at < text.size() && isNameChar(text[at]))
        ++at;
    return text.mid(start, at - start).toLower();
}

// Elements the reader never nests: anything else it nests until it is closed, also the ones HTML
// closes by itself (p, li, dd), which only makes this count stricter than the reader's.
bool isVoid(const QString& name)
{
    static const QStringList names{"br", "hr", "img", "meta"};
    return names.contains(name);
}

// Whether a tag's attributes hold a style attribute, or something like one.
bool hasStyle(const QStringRef& attributes)
{
    for (int at = attributes.indexOf(QLatin1String("style"), 0, Qt::CaseInsensitive); at >= 0;
         at = attributes.indexOf(QLatin1String("style"), at + 1, Qt::CaseInsensitive)) {
        int next = at + 5;
        while (next < attributes.size() && attributes.at(next).isSpace())
            ++next;
        if (next < attributes.size() && attributes.at(next) == QLatin1Char('='))
            return true;
    }
    return false;
}

} // namespace

QString MarkupGuard::refusal(const QString& text)
{
    if (text.size() > BoundedReplyReader::maxAnswerBytes)
        return QStringLiteral("Answer larger than %1 bytes, refused").arg(BoundedReplyReader::maxAnswerBytes);
    // A link makes the reader ask the GUI application for its palette, and there may be none.
    const bool linksAllowed = qobject_cast<QGuiApplication*>(QCoreApplication::instance()) != nullptr;
    QStringList open;
    int tags = 0;
    for (int at = text.indexOf(QLatin1Char('<')); at >= 0 && at + 1 < text.size(); at = text.indexOf(QLatin1Char('<'), at)) {
        ++at;
        const QChar next = text[at];
        if (next == QLatin1Char('!') || next == QLatin1Char('?'))
            continue;
        const bool closing = next == QLatin1Char('/');
        if (closing)
            ++at;
        const QString name = tagName(text, at);
        if (name.isEmpty())
            continue;
        // To the tag's end, or to the next "<", so that the whole pass stays linear.
        const int attributesFrom = at;
        while (at < text.size() && text[at] != QLatin1Char('>') && text[at] != QLatin1Char('<'))
            ++at;
        if (closing) {
            const int index = open.lastIndexOf(name);
            if (index >= 0)
                open.erase(open.begin() + index, open.end());
            continue;
        }
        if (++tags > maxTags)
            return QStringLiteral("Answer markup has more than %1 tags, refused").arg(maxTags);
        // Cell spans make the reader lay out a grid of rows times columns.
        if (name == "table" || name == "tr" || name == "td" || name == "th")
            return QStringLiteral("Answer markup holds a table, refused");
        // Every style rule is matched against every element.
        if (name == "style")
            return QStringLiteral("Answer markup holds a style sheet, refused");
        // Style declarations cost the reader about a second per megabyte.
        if (hasStyle(text.midRef(attributesFrom, at - attributesFrom)))
            return QStringLiteral("Answer markup holds a style attribute, refused");
        if (name == "a" && !linksAllowed)
            return QStringLiteral("Answer markup holds a link, refused");
        const bool selfClosed = at < text.size() && text[at] == QLatin1Char('>') && text[at - 1] == QLatin1Char('/');
        if (isVoid(name) || selfClosed)
            continue;
        open.append(name);
        if (open.size() > maxDepth)
            return QStringLiteral("Answer markup nested deeper than %1 elements, refused").arg(maxDepth);
    }
    return QString();
}

} // namespace KepPlugin
