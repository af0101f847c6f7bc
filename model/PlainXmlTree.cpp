#include "PlainXmlTree.h"

#include "XmlNesting.h"
#include "XmlReference.h"

#include <QRegularExpression>
#include <QVarLengthArray>

namespace KepPlugin {

namespace {

bool isNameStart(ushort u)
{
    return (u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') || u == '_';
}

bool isNameChar(ushort u)
{
    return isNameStart(u) || (u >= '0' && u <= '9') || u == '-' || u == '.';
}

bool isBlank(ushort u)
{
    return u == ' ' || u == '\t' || u == '\n';
}

const QChar* skipBlanks(const QChar* p, const QChar* end)
{
    while (p < end && isBlank(p->unicode()))
        ++p;
    return p;
}

const QChar* skipName(const QChar* p, const QChar* end)
{
    if (p == end || !isNameStart(p->unicode()))
        return p;
    while (p < end && isNameChar(p->unicode()))
        ++p;
    return p;
}

// Characters the DOM's reader could take otherwise than as they stand: controls, carriage
// returns (XML folds them into line feeds), non-characters and broken surrogate pairs.
bool isPlainChar(const QChar* p, const QChar* end)
{
    const ushort u = p->unicode();
    if (u < 0x20)
        return u == '\t' || u == '\n';
    if (u == 0xfffe || u == 0xffff)
        return false;
    // p[-1] is at least the '>' of a tag.
    if (p->isHighSurrogate())
        return p + 1 < end && p[1].isLowSurrogate();
    if (p->isLowSurrogate())
        return p[-1].isHighSurrogate();
    return true;
}

// Past the attributes of a start tag, to its '>' or "/>": each attribute after a blank, as
// name="value" or name='value' with a plain value, no name twice. Null for anything else. The
// parser never reads attributes; the DOM's reader only has to accept them.
const QChar* skipAttributes(const QChar* p, const QChar* end)
{
    // Names are compared pairwise; more attributes than real answers carry go to the DOM.
    constexpr int maxAttributes = 16;
    QVarLengthArray<QStringView, 4> names;
    for (;;) {
        const QChar* next = skipBlanks(p, end);
        if (next < end && (*next == QLatin1Char('>') || *next == QLatin1Char('/')))
            return next;
        const QChar* nameEnd = skipName(next, end);
        if (next == p || nameEnd == next || end - nameEnd < 2 || *nameEnd != QLatin1Char('='))
            return nullptr;
        const QChar quote = nameEnd[1];
        const QStringView name(next, nameEnd - next);
        if ((quote != QLatin1Char('"') && quote != QLatin1Char('\'')) || names.contains(name) || names.size() == maxAttributes)
            return nullptr;
        names.append(name);
        for (p = nameEnd + 2; p < end && *p != quote; ++p) {
            if (*p == QLatin1Char('<') || *p == QLatin1Char('&') || !isPlainChar(p, end))
                return nullptr;
        }
        if (p == end)
            return nullptr;
        ++p;
    }
}

bool isWhiteSpace(QStringView text)
{
    for (const QChar c : text) {
        if (!c.isSpace())
            return false;
    }
    return true;
}

} // namespace

PlainXmlTree::Node PlainXmlTree::Node::toElement() const
{
    return isNull() || tree_->nodes_.at(index_).name < 0 ? Node() : *this;
}

QString PlainXmlTree::Node::tagName() const
{
    const int name = isNull() ? -1 : tree_->nodes_.at(index_).name;
    return name < 0 ? QString() : tree_->names_.at(name);
}

QString PlainXmlTree::Node::text() const
{
    if (isNull())
        return QString();
    const NodeData& node = tree_->nodes_.at(index_);
    if (node.name < 0)
        return node.text;
    // Most elements hold one text node: shared, not copied.
    if (node.firstChild >= 0 && node.firstChild == node.lastChild && tree_->nodes_.at(node.firstChild).name < 0)
        return tree_->nodes_.at(node.firstChild).text;
    QString out;
    tree_->appendText(index_, &out);
    return out;
}

PlainXmlTree::Node PlainXmlTree::Node::firstChild() const
{
    const int child = isNull() ? -1 : tree_->nodes_.at(index_).firstChild;
    return child < 0 ? Node() : Node(tree_, child);
}

PlainXmlTree::Node PlainXmlTree::Node::nextSibling() const
{
    const int next = isNull() ? -1 : tree_->nodes_.at(index_).nextSibling;
    return next < 0 ? Node() : Node(tree_, next);
}

PlainXmlTree::Node PlainXmlTree::Node::firstChildElement(const QString& name) const
{
    for (Node child = firstChild(); !child.isNull(); child = child.nextSibling()) {
        const int childName = tree_->nodes_.at(child.index_).name;
        if (childName >= 0 && tree_->names_.at(childName) == name)
            return child;
    }
    return Node();
}

QVector<PlainXmlTree::Node> PlainXmlTree::Node::elementsByTagName(const QString& name) const
{
    QVector<Node> found;
    if (isNull())
        return found;
    // Descendants in document order, without recursion: a node's subtree ends where the next
    // sibling of it or of one of its ancestors begins, which the flat order already gives.
    const QVector<NodeData>& nodes = tree_->nodes_;
    const int end = tree_->subtreeEnd(index_);
    for (int i = index_ + 1; i < end; ++i) {
        if (nodes.at(i).name >= 0 && tree_->names_.at(nodes.at(i).name) == name)
            found.append(Node(tree_, i));
    }
    return found;
}

int PlainXmlTree::subtreeEnd(int index) const
{
    for (int i = index; i >= 0; i = nodes_.at(i).parent) {
        if (nodes_.at(i).nextSibling >= 0)
            return nodes_.at(i).nextSibling;
    }
    return nodes_.size();
}

void PlainXmlTree::appendText(int element, QString* out) const
{
    const int end = subtreeEnd(element);
    for (int i = element + 1; i < end; ++i) {
        if (nodes_.at(i).name < 0)
            out->append(nodes_.at(i).text);
    }
}

int PlainXmlTree::add(int parent, int name, const QString& text)
{
    NodeData node;
    node.name = name;
    node.text = text;
    node.parent = parent;
    const int index = nodes_.size();
    if (parent >= 0) {
        NodeData& owner = nodes_[parent];
        if (owner.lastChild >= 0)
            nodes_[owner.lastChild].nextSibling = index;
        else
            owner.firstChild = index;
        owner.lastChild = index;
    }
    nodes_.append(node);
    return index;
}

int PlainXmlTree::nameIndex(const QChar* name, int size)
{
    const QStringView view(name, size);
    for (int i = 0; i < names_.size(); ++i) {
        if (names_.at(i) == view)
            return i;
    }
    // Looked up one by one: a text of more names than product XML has goes to the DOM.
    constexpr int maxNames = 64;
    if (names_.size() == maxNames)
        return -1;
    names_.append(view.toString());
    return names_.size() - 1;
}

bool PlainXmlTree::read(const QString& text)
{
    nodes_.clear();
    names_.clear();
    static const QRegularExpression declaration(
        QStringLiteral("^<\\?xml[ \\t\\n]+version=([\"'])1\\.0\\1([ \\t\\n]+encoding=([\"'])[Uu][Tt][Ff]-8\\3)?[ \\t\\n]*\\?>"));
    const QChar* p = text.constData();
    const QChar* const end = p + text.size();
    if (text.startsWith(QLatin1String("<?"))) {
        const QRegularExpressionMatch match = declaration.match(text);
        if (!match.hasMatch())
            return false;
        p += match.capturedLength();
    }
    // An element has two tags and mostly one text: the tree never has to grow.
    nodes_.reserve(int(text.count(QLatin1Char('<'))) + 1);
    if (!readElements(skipBlanks(p, end), end)) {
        nodes_.clear();
        return false;
    }
    return true;
}

// The character data from *at up to the next tag, as a text node of the element open unless
// it is white space alone.
bool PlainXmlTree::readText(int open, const QChar** at, const QChar* end)
{
    const QChar* const from = *at;
    const QChar* p = from;
    bool references = false;
    for (; p < end && *p != QLatin1Char('<'); ++p) {
        if (*p == QLatin1Char('&'))
            references = true;
        // "]]>" may not stand in character data.
        else if (!isPlainChar(p, end) || (*p == QLatin1Char(']') && QStringView(p, end - p).startsWith(QLatin1String("]]>"))))
            return false;
    }
    *at = p;
    QString text;
    if (!references) {
        if (isWhiteSpace(QStringView(from, p - from)))
            return true;
        text = QString(from, int(p - from));
    } else {
        text.reserve(int(p - from));
        for (const QChar* q = from; q < p;) {
            if (*q != QLatin1Char('&')) {
                text.append(*q++);
                continue;
            }
            const QChar c = XmlReference::predefined(q, p, &q);
            if (c.isNull())
                return false;
            text.append(c);
        }
        if (isWhiteSpace(text))
            return true;
    }
    add(open, -1, text);
    return true;
}

// The root element and everything in it, then nothing but blanks.
bool PlainXmlTree::readElements(const QChar* p, const QChar* end)
{
    int open = -1; // the innermost element not yet closed
    int depth = 0;
    do {
        if (p == end || *p != QLatin1Char('<'))
            return false;
        ++p;
        const bool closing = p < end && *p == QLatin1Char('/');
        const QChar* name = closing ? p + 1 : p;
        const QChar* nameEnd = skipName(name, end);
        if (nameEnd == name)
            return false;
        p = closing ? skipBlanks(nameEnd, end) : skipAttributes(nameEnd, end);
        if (!p)
            return false;
        const int nameId = nameIndex(name, int(nameEnd - name));
        if (nameId < 0)
            return false;
        if (closing) {
            if (open < 0 || p == end || *p != QLatin1Char('>') || nodes_.at(open).name != nameId)
                return false;
            open = nodes_.at(open).parent;
            --depth;
            ++p;
        } else if (p < end && *p == QLatin1Char('>')) {
            if ((open < 0 && !nodes_.isEmpty()) || ++depth > XmlNesting::maxElementNesting)
                return false; // a second root, or deeper than the DOM may go
            open = add(open, nameId);
            ++p;
        } else if (end - p >= 2 && p[0] == QLatin1Char('/') && p[1] == QLatin1Char('>')) {
            if (open < 0 && !nodes_.isEmpty())
                return false;
            add(open, nameId);
            p += 2;
        } else {
            return false;
        }
        if (open < 0)
            break;
        if (!readText(open, &p, end))
            return false;
    } while (true);
    return skipBlanks(p, end) == end;
}

} // namespace KepPlugin
