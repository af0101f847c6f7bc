#pragma once

#include "model/MessageBase.h"
#include "model/News.h"
#include "model/Product.h"
#include "model/Update.h"

#include <QDebug>
#include <QStringList>

// Test-side views of records: their whole stored map (also keys getDataByKey refuses),
// records that count their destruction, and log items quoted the way the log writes them.
namespace RecordProbe {

struct Peek : KepPlugin::MessageBase
{
    static QMap<QString, QString> fields(const KepPlugin::MessageBase* record)
    {
        return record->*(&Peek::data_);
    }
};

// "key=value;key=value", then " rel=a,b" for an update with related ids.
inline QString describe(const KepPlugin::MessageBase* record, const QList<int>& related = {})
{
    QStringList parts;
    const QMap<QString, QString> fields = Peek::fields(record);
    for (auto it = fields.cbegin(); it != fields.cend(); ++it)
        parts << it.key() + QLatin1Char('=') + it.value();
    QString text = parts.join(QLatin1Char(';'));
    if (!related.isEmpty()) {
        QStringList ids;
        for (int id : related)
            ids << QString::number(id);
        text += QStringLiteral(" rel=") + ids.join(QLatin1Char(','));
    }
    return text;
}

inline QStringList updatesOf(const KepPlugin::Product& product)
{
    QStringList out;
    for (const KepPlugin::Update* update : product.updatesList())
        out << describe(update, update->relatedUpdates());
    return out;
}

inline QStringList newsOf(const KepPlugin::Product& product)
{
    QStringList out;
    for (const KepPlugin::News* news : product.newsList())
        out << describe(news);
    return out;
}

inline int& updatesDestroyed()
{
    static int count = 0;
    return count;
}

inline int& newsDestroyed()
{
    static int count = 0;
    return count;
}

class CountedUpdate : public KepPlugin::Update
{
public:
    explicit CountedUpdate(const QString& id) { setData({{QStringLiteral("id"), id}}); }
    ~CountedUpdate() override { ++updatesDestroyed(); }
};

class CountedNews : public KepPlugin::News
{
public:
    explicit CountedNews(const QString& id) { setData({{QStringLiteral("id"), id}}); }
    ~CountedNews() override { ++newsDestroyed(); }
};

// A QString log item as it appears in a written line: quoted, with Qt's escapes.
inline QString quoted(const QString& text)
{
    QString out;
    QDebug(&out).nospace() << text;
    return out;
}

inline QString line(int level, const QString& text)
{
    return QString::number(level) + QLatin1Char(' ') + text;
}

inline QString line(int level, const QString& text, const QString& item)
{
    return line(level, text) + QLatin1Char(' ') + quoted(item);
}

inline QString line(int level, const QString& text, int number)
{
    return line(level, text) + QLatin1Char(' ') + QString::number(number);
}

// A line written as one formatted QString item.
inline QString trace(const QString& text)
{
    return line(0, quoted(text));
}

inline QStringList atLevel(const QStringList& lines, int level)
{
    QStringList out;
    for (const QString& l : lines)
        if (l.section(QLatin1Char(' '), 0, 0).toInt() >= level)
            out << l;
    return out;
}

} // namespace RecordProbe
