#pragma once

#include <QString>
#include <QVector>

namespace KepPlugin {

// Writes a document of elements and text elements exactly as QXmlStreamWriter does with
// auto-formatting (declaration, four blanks an indent, empty elements closed as "<x/>", text
// with '<', '>', '&' and '"' escaped), which cost most of the time the consolidated answer
// takes. Text must hold only characters XML can hold; the caller drops the others.
class IndentedXmlWriter
{
public:
    explicit IndentedXmlWriter(QString* out);

    void writeStartElement(const QString& name);
    void writeTextElement(const QString& name, const QString& text);
    void writeEndElement();
    // Closes what is still open and ends the last line.
    void writeEndDocument();

private:
    struct Open
    {
        QString name;
        bool hasChildren = false;
    };

    void openTag(const QString& name);
    void appendEscaped(const QString& text);

    QString& out_;
    QVector<Open> open_;
};

} // namespace KepPlugin
