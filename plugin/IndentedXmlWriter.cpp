#include "IndentedXmlWriter.h"

namespace KepPlugin {

IndentedXmlWriter::IndentedXmlWriter(QString* out)
    : out_(*out)
{
    out_ += QLatin1String("<?xml version=\"1.0\"?>");
}

void IndentedXmlWriter::openTag(const QString& name)
{
    if (!open_.isEmpty())
        open_.last().hasChildren = true;
    out_ += QLatin1Char('\n');
    out_.append(QString(4 * open_.size(), QLatin1Char(' ')));
    out_ += QLatin1Char('<');
    out_ += name;
    out_ += QLatin1Char('>');
}

void IndentedXmlWriter::writeStartElement(const QString& name)
{
    openTag(name);
    open_.append(Open{name});
}

void IndentedXmlWriter::writeTextElement(const QString& name, const QString& text)
{
    openTag(name);
    appendEscaped(text);
    out_ += QLatin1String("</");
    out_ += name;
    out_ += QLatin1Char('>');
}

void IndentedXmlWriter::writeEndElement()
{
    if (open_.isEmpty())
        return;
    const Open element = open_.takeLast();
    if (!element.hasChildren) {
        out_.chop(1); // the start tag's '>'
        out_ += QLatin1String("/>");
        return;
    }
    out_ += QLatin1Char('\n');
    out_.append(QString(4 * open_.size(), QLatin1Char(' ')));
    out_ += QLatin1String("</");
    out_ += element.name;
    out_ += QLatin1Char('>');
}

void IndentedXmlWriter::writeEndDocument()
{
    while (!open_.isEmpty())
        writeEndElement();
    out_ += QLatin1Char('\n');
}

void IndentedXmlWriter::appendEscaped(const QString& text)
{
    const QChar* from = text.constData();
    const QChar* const end = from + text.size();
    for (const QChar* p = from; p < end; ++p) {
        const char* replacement = nullptr;
        switch (p->unicode()) {
        case '<': replacement = "&lt;"; break;
        case '>': replacement = "&gt;"; break;
        case '&': replacement = "&amp;"; break;
        case '"': replacement = "&quot;"; break;
        default: continue;
        }
        out_.append(from, int(p - from));
        out_ += QLatin1String(replacement);
        from = p + 1;
    }
    out_.append(from, int(end - from));
}

} // namespace KepPlugin
