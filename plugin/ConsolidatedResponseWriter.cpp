#include "ConsolidatedResponseWriter.h"

#include "IndentedXmlWriter.h"

#include "model/KepXmlTags.h"
#include "model/News.h"
#include "model/Product.h"
#include "model/Update.h"

#include <QDateTime>
#include <QHash>
#include <QLocale>
#include <QSet>

namespace KepPlugin {

namespace {

// Length of the valid XML character at i (2 for a surrogate pair), 0 when it is not one.
int xmlCharLength(const QString& text, int i)
{
    const QChar c = text.at(i);
    if (c.isHighSurrogate())
        return (i + 1 < text.size() && text.at(i + 1).isLowSurrogate()) ? 2 : 0;
    const ushort u = c.unicode();
    const bool valid = u == 0x9 || u == 0xA || u == 0xD || (u >= 0x20 && u <= 0xD7FF) || (u >= 0xE000 && u <= 0xFFFD);
    return valid ? 1 : 0;
}

// The stream writer escapes markup but passes control characters and broken surrogates
// through, which would make the whole document unreadable; such characters are dropped.
QString xmlSafe(const QString& text)
{
    QString kept;
    bool changed = false;
    for (int i = 0; i < text.size();) {
        const int length = xmlCharLength(text, i);
        if (length == 0 && !changed) {
            kept = text.left(i);
            changed = true;
        } else if (changed) {
            kept.append(text.midRef(i, length));
        }
        i += length ? length : 1;
    }
    return changed ? kept : text;
}

// Formats dates the way the user's locale writes them short. Parsing one costs a look at the
// time-zone file, and a run has few distinct dates among thousands, so each is formatted once.
class DateFormatter
{
public:
    QString shortDate(const QString& isoDateTime)
    {
        auto known = formatted_.constFind(isoDateTime);
        if (known == formatted_.constEnd()) {
            const QDate date = QDateTime::fromString(isoDateTime.trimmed(), Qt::ISODate).date();
            known = formatted_.insert(isoDateTime, date.isValid() ? locale_.toString(date, QLocale::ShortFormat) : QString());
        }
        return known.value();
    }

private:
    // Looked up once: building the system locale is a good part of formatting one date.
    const QLocale locale_ = QLocale::system();
    QHash<QString, QString> formatted_;
};

class Writer
{
public:
    explicit Writer(QString* out)
        : xml_(out)
    {
    }

    void text(const QString& name, const QString& value) { xml_.writeTextElement(name, xmlSafe(value)); }
    void start(const QString& name) { xml_.writeStartElement(name); }
    void end() { xml_.writeEndElement(); }
    void finish() { xml_.writeEndDocument(); }

private:
    IndentedXmlWriter xml_;
};

void writeUpdate(Writer& out, Update* update, bool legacy, DateFormatter& dates)
{
    using namespace Tags;
    auto trimmed = [update](const QString& key) { return update->getDataByKey(key).trimmed(); };
    out.start(UPDATE);
    out.text(ID, trimmed(ID));
    out.text(TITLE, update->getDataByKey(TITLE));
    out.text(DESCRIPTION, update->getDataByKey(DESCRIPTION));
    for (const QString& key : {DOWNLOAD_URL, DOWNLOAD_URL_ONLINE, DOWNLOAD_FILE_NAME, DOWNLOAD_FILE_NAME_ONLINE,
                               DOWNLOAD_SIZE})
        out.text(key, trimmed(key));
    out.text(PUBLISH_DATE, dates.shortDate(update->getDataByKey(PUBLISH_DATE)));
    out.text(ADDITIONAL_INFO_URL, trimmed(ADDITIONAL_INFO_URL));
    out.text(ONE_CLICK_UPDATE_MODE_IS_SUPPORTED, legacy ? QStringLiteral("0") : QStringLiteral("1"));
    out.start(RELATED_UPDATES);
    const QList<int> related = update->relatedUpdates();
    for (int number : related)
        out.text(ID, QString::number(number));
    out.end();
    out.end();
}

void writeNews(Writer& out, News* news, const QString& id, DateFormatter& dates)
{
    using namespace Tags;
    out.start(MESSAGE);
    out.text(ID, id);
    out.text(TITLE, news->getDataByKey(TITLE).trimmed());
    out.text(DESCRIPTION, news->getDataByKey(DESCRIPTION).trimmed());
    out.text(PUBLISH_DATE, dates.shortDate(news->getDataByKey(PUBLISH_DATE)));
    out.end();
}

} // namespace

QString ConsolidatedResponseWriter::toXml(const QList<Product*>& products)
{
    DateFormatter dates;
    QString document;
    {
        Writer out(&document);
        out.start(Tags::ROOT);
        out.start(Tags::UPDATES);
        for (Product* product : products) {
            const bool legacy = product->isLegacy();
            const QList<Update*> updates = product->updatesList();
            for (Update* update : updates)
                writeUpdate(out, update, legacy, dates);
        }
        out.end();
        out.start(Tags::PRODUCT_NEWS);
        QSet<QString> written;
        for (Product* product : products) {
            const QList<News*> newsList = product->newsList();
            for (News* news : newsList) {
                const QString id = news->getDataByKey(Tags::ID).trimmed();
                if (written.contains(id))
                    continue;
                written.insert(id);
                writeNews(out, news, id, dates);
            }
        }
        out.end();
        out.end();
        out.finish();
    }
    // Trimmed in place and cut to its size: the document is the largest string of a run, and
    // grows by doubling.
    document = std::move(document).trimmed();
    document.squeeze();
    return document;
}

} // namespace KepPlugin
