#pragma once

#include <QList>
#include <QString>

namespace KepPlugin {

class Product;

// Writes the updates and news of a run's products as the one XML document the host reads.
class ConsolidatedResponseWriter
{
public:
    static QString toXml(const QList<Product*>& products);
};

} // namespace KepPlugin
