#include "plugin/IDataProvider.h"

#include <QJsonObject>
#include <QMetaMethod>
#include <QPluginLoader>
#include <QtTest>

// "kind signature [parameter names]" of the methods a class adds to its base.
static QStringList ownMethods(const QMetaObject* meta)
{
    static const char* const kinds[] = {"method", "signal", "slot", "constructor"};
    QStringList methods;
    for (int i = meta->methodOffset(); i < meta->methodCount(); ++i)
        methods << QStringLiteral("%1 %2 [%3]").arg(kinds[meta->method(i).methodType()], meta->method(i).methodSignature(),
                                                   meta->method(i).parameterNames().join(','));
    return methods;
}

// The module as the host sees it: metadata read without loading, the interface, and the
// meta-objects that the host's connections and QML rely on.
class TestPluginLoading : public QObject
{
    Q_OBJECT
private slots:
    void loading()
    {
        QPluginLoader loader(KEP_PLUGIN_PATH);
        // moc records the Qt version without its patch number, and leaves an empty MetaData out.
        QCOMPARE(loader.metaData(), (QJsonObject{{"IID", "com.vasko.tav.plugins.dataprovider.kep/1.0"}, {"archreq", 0},
                                                 {"className", "KepDataProviderPlugin"}, {"debug", false},
                                                 {"version", QT_VERSION & 0xffff00}}));
        QVERIFY(!loader.isLoaded());

        QObject* instance = loader.instance();
        auto* provider = qobject_cast<IDataProvider*>(instance);
        QVERIFY2(provider, qPrintable(loader.errorString()));
        QCOMPARE(instance->qt_metacast("com.vasko.tav.dataprovider.kep/1.0"), static_cast<void*>(provider));
        QCOMPARE(instance->qt_metacast("com.vasko.tav.plugins.dataprovider.kep/1.0"), nullptr);
        QCOMPARE(provider->name() + ' ' + provider->version(), QStringLiteral("KEP 2.0.0.0"));
        QVERIFY(provider->validateTAVVersion("0.0") && provider->validateDownloadedUpdate({}, "/nonexistent", -1));
        QCOMPARE(provider->qmlObjects(), (QMap<QString, QObject*>{{"kepplugin", instance}}));

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
};

QTEST_GUILESS_MAIN(TestPluginLoading)
#include "tst_pluginloading.moc"
