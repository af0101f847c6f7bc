#pragma once

#include <QString>
#include <QVariantList>

// The plug-in's consolidated document read into the lists the window's QML shows: one map per
// update and per news message, every field present (empty when the document lacks it).
class ConsolidatedAnswer
{
public:
    // An empty text gives empty lists; a document that does not parse gives empty lists and
    // the parser's reason in errorText().
    static ConsolidatedAnswer read(const QString& xml);

    QVariantList updates() const { return updates_; }
    QVariantList news() const { return news_; }
    QString errorText() const { return error_; }

private:
    QVariantList updates_;
    QVariantList news_;
    QString error_;
};
