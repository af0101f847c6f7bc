#pragma once

#include <QList>
#include <QMap>
#include <QObject>
#include <QString>

namespace KepPlugin {

class Update;
class News;

// One locally registered product: its record, the last raw service reply and the updates
// and news parsed from it, which it owns.
class Product : public QObject
{
    Q_OBJECT
public:
    explicit Product(QString guid);
    ~Product() override;

    QString guid() const { return guid_; }

    void setData(const QMap<QString, QString>& data);
    void setDataByKey(QString key, QString value);
    QString getDataByKey(QString key) const;

    bool parseRawXmlData(QString data);

    void addUpdate(Update* update);
    QList<Update*> updatesList() const { return updates_; }
    void clearUpdates();

    void addNews(News* news);
    QList<News*> newsList() const { return news_; }
    void clearNews();

    bool isLegacy() const;

signals:
    void regDataChanged(QString guid, QString key, QString value);

public slots:
    void setRawXmlData(QString data);

private:
    Q_DISABLE_COPY(Product)

    const QString guid_;
    QMap<QString, QString> data_;
    QList<Update*> updates_;
    QList<News*> news_;
    QString rawXmlData_;
};

} // namespace KepPlugin
