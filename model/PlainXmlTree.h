#pragma once

#include <QString>
#include <QVector>

namespace KepPlugin {

// Building a DOM is most of the cost of an answer. The service's product XML is elements and
// text only, and for such text this tree answers what the parser asks exactly as the DOM
// does: child elements by name, descendants by name, the text of an element (text nodes of
// white space alone are left out, as the DOM's reader leaves them). Anything else (attributes,
// references other than the five of XML, comments, CDATA, declarations, characters the DOM's
// reader might judge otherwise) is declined, and the caller builds the DOM as before; so is
// text nested deeper than XmlNesting allows the DOM.
class PlainXmlTree
{
public:
    // A node of the tree with the handful of QDomNode and QDomElement calls the parser makes.
    class Node
    {
    public:
        Node() = default;
        bool isNull() const { return tree_ == nullptr; }
        Node toElement() const;
        QString tagName() const;
        QString text() const;
        Node firstChild() const;
        Node nextSibling() const;
        Node firstChildElement(const QString& name) const;
        QVector<Node> elementsByTagName(const QString& name) const;

    private:
        friend class PlainXmlTree;
        Node(const PlainXmlTree* tree, int index)
            : tree_(tree)
            , index_(index)
        {
        }
        const PlainXmlTree* tree_ = nullptr;
        int index_ = -1;
    };

    // True, with the tree built, when the text is of that plain kind and well-formed.
    bool read(const QString& text);
    Node documentElement() const { return nodes_.isEmpty() ? Node() : Node(this, 0); }

private:
    struct NodeData
    {
        int name = -1; // into names_; -1 for a text node
        QString text;
        int parent = -1;
        int firstChild = -1;
        int lastChild = -1;
        int nextSibling = -1;
    };

    int add(int parent, int name, const QString& text = QString());
    int nameIndex(const QChar* name, int size);
    bool readElements(const QChar* p, const QChar* end);
    bool readText(int open, const QChar** at, const QChar* end);
    void appendText(int element, QString* out) const;
    // Index past the last node of the subtree at index: nodes are kept in document order.
    int subtreeEnd(int index) const;

    QVector<NodeData> nodes_;
    // The few distinct element names of a document, each held once.
    QVector<QString> names_;
};

} // namespace KepPlugin
