#include "plugin/IDataProvider.h"

#include <QJsonObject>
#include <QMetaMethod>
#include <QPluginLoader>
#include <QtTest>

// The module as the host sees it: metadata read without loading, the interface, and the
// meta-objects that the host's connections and QML rely on.
class TestPluginLoading : public QObject
{
    Q_OBJECT
private slots:
    void metadataWithoutLoading();
    void loadedPlugin();
};

namespace {

// "kind signature [parameter names]" of the methods a class adds to its base.
QStringList ownMethods(const QMetaObject* meta)
{
    static const char* const kinds[] = {"method", "signal", "slot", "constructor"};
    QStringList methods;
    for (int i = meta->methodOffset(); i < meta->methodCount(); ++i) {
        const QMetaMethod method = meta->method(i);
        methods.append(QStringLiteral("%1 %2 [%3]")
                           .arg(QLatin1String(kinds[method.methodType()]), QString::fromLatin1(method.methodSignature()),
                                QString::fromLatin1(method.parameterNames().join(','))));
    }
    return methods;
}

} // namespace

void TestPluginLoading::metadataWithoutLoading()
{
    QPluginLoader loader(QStringLiteral(KEP_PLUGIN_PATH));
    const QJsonObject metaData = loader.metaData();
    QCOMPARE(metaData.value("IID").toString(), QStringLiteral("com.vasko.tav.plugins.dataprovider.kep/1.0"));
    QCOMPARE(metaData.value("className").toString(), QStringLiteral("KepDataProviderPlugin"));
    QCOMPARE(metaData.value("debug").toBool(true), false);
    // moc records the Qt version without its patch number, and leaves an empty MetaData out.
    QCOMPARE(metaData.value("version").toInt(), QT_VERSION & 0xffff00);
    QCOMPARE(metaData.value("MetaData").toObject(), QJsonObject());
    QVERIFY(!loader.isLoaded());
}

void TestPluginLoading::loadedPlugin()
{
    QPluginLoader loader(QStringLiteral(KEP_PLUGIN_PATH));
    QObject* instance = loader.instance();
    QVERIFY2(instance, qPrintable(loader.errorString()));
    QCOMPARE(loader.instance(), instance);
    auto* provider = qobject_cast<IDataProvider*>(instance);
    QVERIFY(provider);
    QCOMPARE(instance->qt_metacast("com.vasko.tav.dataprovider.kep/1.0"), static_cast<void*>(provider));
    QCOMPARE(instance->qt_metacast("com.vasko.tav.plugins.dataprovider.kep/1.0"), nullptr);

    QCOMPARE(provider->name(), QStringLiteral("KEP"));
    QCOMPARE(provider->version(), QStringLiteral("2.0.0.0"));
    QVERIFY(provider->validateTAVVersion(QStringLiteral("0.0")));
    QVERIFY(provider->validateDownloadedUpdate(QString(), QStringLiteral("/nonexistent"), -1));
    const QMap<QString, QObject*> objects = provider->qmlObjects();
    QCOMPARE(objects.keys(), QStringList{QStringLiteral("kepplugin")});
    QCOMPARE(objects.value(QStringLiteral("kepplugin")), instance);

    const QMetaObject* meta = instance->metaObject();
    QCOMPARE(meta->className(), "KepPlugin::KepDataProviderPlugin");
    QCOMPARE(ownMethods(meta), (QStringList{"signal interrupting() []", "method cancelCurrentAction() []"}));
    // The interface's meta-object is the module's own copy, reached through the plug-in's.
    const QMetaObject* interface = meta->superClass();
    QCOMPARE(interface->className(), "IDataProvider");
    QCOMPARE(interface->superClass(), &QObject::staticMetaObject);
    QCOMPARE(ownMethods(interface), (QStringList{"slot cancelCurrentAction() []",
                                                 "slot validateDownloadedUpdate(QString,QString,int) [updateId,fileName,type]"}));
    QCOMPARE(interface->propertyCount(), interface->propertyOffset());
    QVERIFY(loader.unload());
}

QTEST_GUILESS_MAIN(TestPluginLoading)
#include "tst_pluginloading.moc"
