#include "plugin/IDataProvider.h"

#include <QJsonObject>
#include <QMetaMethod>
#include <QPluginLoader>
#include <QtTest>

// The module as the host sees it: metadata read without loading, the interface, the
// meta-objects the host's QML and connections rely on.
class TestPluginLoading : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void metadata_data();
    void metadata();
    void interface();
    void identity();
    void interfaceMetaObject();
    void pluginMetaObject();
    void cleanupTestCase();

private:
    QPluginLoader loader_{QStringLiteral(KEP_PLUGIN_PATH)};
    IDataProvider* provider_ = nullptr;
};

namespace {

QStringList ownMethods(const QMetaObject* meta)
{
    QStringList methods;
    for (int i = meta->methodOffset(); i < meta->methodCount(); ++i) {
        const QMetaMethod method = meta->method(i);
        QStringList names;
        for (const QByteArray& name : method.parameterNames())
            names.append(QString::fromLatin1(name));
        methods.append(QStringLiteral("%1 %2 [%3]")
                           .arg(method.methodType() == QMetaMethod::Signal ? QStringLiteral("signal")
                                    : method.methodType() == QMetaMethod::Slot ? QStringLiteral("slot")
                                                                               : QStringLiteral("method"),
                                QString::fromLatin1(method.methodSignature()), names.join(QLatin1Char(','))));
    }
    return methods;
}

} // namespace

void TestPluginLoading::initTestCase()
{
    QVERIFY2(loader_.load(), qPrintable(loader_.errorString()));
}

void TestPluginLoading::metadata_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QJsonValue>("value");
    QTest::newRow("IID") << "IID" << QJsonValue(QStringLiteral("com.vasko.tav.plugins.dataprovider.kep/1.0"));
    QTest::newRow("className") << "className" << QJsonValue(QStringLiteral("KepDataProviderPlugin"));
    QTest::newRow("debug") << "debug" << QJsonValue(false);
}

void TestPluginLoading::metadata()
{
    QFETCH(QString, key);
    QFETCH(QJsonValue, value);
    // A fresh loader that never loads: the host reads this before deciding to load.
    QPluginLoader unloaded(QStringLiteral(KEP_PLUGIN_PATH));
    QCOMPARE(unloaded.metaData().value(key), value);
    // moc records the Qt version without its patch number, and leaves an empty MetaData out.
    QCOMPARE(unloaded.metaData().value(QStringLiteral("version")).toInt(), QT_VERSION & 0xffff00);
    QCOMPARE(unloaded.metaData().value(QStringLiteral("MetaData")).toObject(), QJsonObject());
}

void TestPluginLoading::interface()
{
    QObject* instance = loader_.instance();
    QVERIFY(instance);
    QCOMPARE(loader_.instance(), instance);
    provider_ = qobject_cast<IDataProvider*>(instance);
    QVERIFY(provider_);
    QCOMPARE(instance->qt_metacast("com.vasko.tav.dataprovider.kep/1.0"), static_cast<void*>(provider_));
    QCOMPARE(instance->qt_metacast("com.vasko.tav.plugins.dataprovider.kep/1.0"), nullptr);
    QVERIFY(instance->qt_metacast("KepPlugin::KepDataProviderPlugin"));
}

void TestPluginLoading::identity()
{
    QVERIFY(provider_);
    QCOMPARE(provider_->name(), QStringLiteral("KEP"));
    QCOMPARE(provider_->version(), QStringLiteral("2.0.0.0"));
    QVERIFY(provider_->validateTAVVersion(QString()));
    QVERIFY(provider_->validateTAVVersion(QStringLiteral("0.0")));
    QVERIFY(provider_->validateDownloadedUpdate(QString(), QStringLiteral("/nonexistent"), -1));
    const QMap<QString, QObject*> objects = provider_->qmlObjects();
    QCOMPARE(objects.keys(), QStringList{QStringLiteral("kepplugin")});
    QCOMPARE(objects.value(QStringLiteral("kepplugin")), static_cast<QObject*>(provider_));
}

void TestPluginLoading::interfaceMetaObject()
{
    QVERIFY(provider_);
    // The interface's meta-object is the module's own copy, reached through the plug-in's.
    const QMetaObject* meta = provider_->metaObject()->superClass();
    QCOMPARE(meta->className(), "IDataProvider");
    QCOMPARE(meta->superClass(), &QObject::staticMetaObject);
    QCOMPARE(ownMethods(meta), (QStringList{QStringLiteral("slot cancelCurrentAction() []"),
                                            QStringLiteral("slot validateDownloadedUpdate(QString,QString,int) "
                                                           "[updateId,fileName,type]")}));
    QCOMPARE(meta->propertyCount(), meta->propertyOffset());
}

void TestPluginLoading::pluginMetaObject()
{
    QVERIFY(provider_);
    const QMetaObject* meta = provider_->metaObject();
    QCOMPARE(meta->className(), "KepPlugin::KepDataProviderPlugin");
    QCOMPARE(meta->superClass()->className(), "IDataProvider");
    QCOMPARE(ownMethods(meta), (QStringList{QStringLiteral("signal interrupting() []"),
                                            QStringLiteral("method cancelCurrentAction() []")}));
}

void TestPluginLoading::cleanupTestCase()
{
    loader_.unload();
}

QTEST_GUILESS_MAIN(TestPluginLoading)
#include "tst_pluginloading.moc"
