#include "plugin/IDataProvider.h"

#include <QPluginLoader>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickWindow>
#include <QtTest>

// The module's QML controls: they come from its resources only and draw partial entries without
// a single QML or Qt warning.
class TestUiControls : public QObject
{
    Q_OBJECT
    QPluginLoader loader_{KEP_PLUGIN_PATH};
    QQmlEngine engine_;
    QQuickWindow window_;
    std::unique_ptr<QQuickItem> item_;
    static inline QStringList warnings_;

private slots:
    void initTestCase()
    {
        QVERIFY2(loader_.load(), qPrintable(loader_.errorString()));
        // This program links no resources of its own: what is there came with the module.
        QVERIFY(qobject_cast<IDataProvider*>(loader_.instance())->initialize());
        window_.resize(800, 600);
        window_.show();
    }

    void controls_data()
    {
        QTest::addColumn<QString>("control");
        QTest::addColumn<QVariantMap>("properties");
        QTest::addColumn<QVariantMap>("expected"); // part: false hidden, true shown, text shown with it

        const QVariantMap update{{"title", " Studio 2014 Update 3 "}, {"publishDate", "18 Jun 2014"}, {"downloadSize", "812646400"},
                                 {"description", "Adds the profiler."}, {"infoUrl", "https://downloads.example.invalid/u3.html"},
                                 {"oneClickSupported", "1"}, {"relatedUpdates", QStringList{"1180", "1150"}}};
        const auto with = [&update](const QString& key, const QVariant& value, const QVariantMap& expected) {
            QVariantMap changed = update;
            changed.insert(key, value);
            QTest::newRow(qPrintable(key + "=" + value.toStringList().join(","))) << "UpdateEntry" << changed << expected;
        };
        QTest::newRow("update, every field")
            << "UpdateEntry" << update
            << QVariantMap{{"title", "Studio 2014 Update 3"}, {"publishDate", "18 Jun 2014"}, {"downloadSize", "775 MiB"},
                           {"relatedUpdates", "Related updates: 1180, 1150"}, {"oneClickBadge", true},
                           {"description", true}, {"moreInformation", true}};
        with("publishDate", "", {{"publishDate", false}, {"downloadSize", "775 MiB"}});
        with("relatedUpdates", QStringList(), {{"relatedUpdates", false}, {"description", true}});
        // A previous-generation product's update says "0"; only exactly "1" earns the badge.
        with("oneClickSupported", "0", {{"oneClickBadge", false}, {"title", "Studio 2014 Update 3"}});
        with("oneClickSupported", "true", {{"oneClickBadge", false}});
        for (const auto& [bytes, shown] : {std::pair("1023", "1023 bytes"), {"1024", "1.0 KiB"}, {"10239", "10 KiB"},
                                           {" 1610612736 ", "1.5 GiB"}, {"-5", ""}, {"about 5 MB", ""}})
            with("downloadSize", bytes, {{"downloadSize", *shown ? QVariant(shown) : false}});
        QTest::newRow("update, only a title") << "UpdateEntry" << QVariantMap{{"title", "Hot fix"}}
            << QVariantMap{{"publishDate", false}, {"downloadSize", false}, {"description", false}, {"relatedUpdates", false}};
        QTest::newRow("news, only a title") << "NewsEntry" << QVariantMap{{"title", " Meet-up "}}
                                            << QVariantMap{{"title", "Meet-up"}, {"publishDate", false}};
        QTest::newRow("section without a count") << "SectionHeader" << QVariantMap{{"text", "News"}}
                                                 << QVariantMap{{"sectionTitle", "News"}, {"sectionCount", false}};
        // The host decides the state; the control says it in words.
        const auto state = [](const char* name, const QVariantMap& properties, const QVariantMap& expected) {
            QTest::newRow(name) << "EmptyState" << properties << expected;
        };
        for (const auto& [kind, headline] : {std::pair("upToDate", "Everything is up to date"), {"cancelled", "Check cancelled"},
                                             {"noProducts", "No registered products"}, {"exploded", "Not checked yet"}})
            state(kind, {{"kind", kind}}, {{"stateHeadline", headline}, {"retryButton", false}});
        state("checking, product known", {{"kind", "checking"}, {"productIndex", 3}, {"productCount", 12}},
              {{"stateHeadline", "Checking for updates\u2026"}, {"stateDetail", "Checking product 3 of 12"}});
        state("checking, products not read yet", {{"kind", "checking"}, {"productCount", 12}},
              {{"stateDetail", "Reading the registered products"}});
        state("unreachable", {{"kind", "unreachable"}, {"reason", "connection refused"}},
              {{"stateHeadline", "Could not check for updates"}, {"stateDetail", "The service could not be reached: connection refused."},
               {"retryButton", "Try again"}});
        state("offline, nothing to list", {{"kind", "offline"}, {"reason", "connection refused"}},
              {{"stateHeadline", "Nothing to show"}, {"retryButton", false}});
        const auto banner = [](const char* name, const QVariantMap& properties, const QVariantMap& expected) {
            QTest::newRow(name) << "StatusBanner" << properties << expected;
        };
        banner("banner, all from the cache", {{"reason", "no answer within 60 seconds"}, {"productCount", 4}, {"cachedCount", 4}},
               {{"bannerHeadline", "The service could not be reached: no answer within 60 seconds."},
                {"bannerDetail", "4 of 4 products are shown from the cache of an earlier check."}});
        banner("banner, cached and unchecked", {{"reason", "connection refused"}, {"productCount", 4}, {"cachedCount", 1},
                                                {"uncheckedCount", 3}},
               {{"bannerDetail", "1 of 4 products is shown from the cache of an earlier check. 3 of 4 products are not checked."}});
        // A cancel during the last product's request still completes the run.
        banner("banner, cancelled under way", {{"reason", "the check was cancelled while the request was under way"}, {"productCount", 4},
                                               {"uncheckedCount", 1}, {"cancelledCount", 1}},
               {{"bannerHeadline", "The check was cancelled before every product was answered."},
                {"bannerDetail", "1 of 4 products is not checked."}});
        banner("banner, the one product", {{"productCount", 1}, {"uncheckedCount", 1}},
               {{"bannerHeadline", "The service could not be reached."}, {"bannerDetail", "1 of 1 product is not checked."}});
    }

    void controls()
    {
        QFETCH(QString, control);
        QFETCH(QVariantMap, properties);
        QFETCH(QVariantMap, expected);
        QQmlComponent component(&engine_, QUrl("qrc:/kepplugin/ui/" + control + ".qml"));
        warnings_.clear();
        const QtMessageHandler previous = qInstallMessageHandler([](QtMsgType type, const QMessageLogContext&, const QString& text) {
            if (type != QtDebugMsg && type != QtInfoMsg)
                warnings_.append(text);
        });
        item_.reset(qobject_cast<QQuickItem*>(component.createWithInitialProperties(properties)));
        if (item_) {
            item_->setParentItem(window_.contentItem());
            item_->setWidth(700);
            window_.grabWindow(); // drawn once
        }
        qInstallMessageHandler(previous);
        QVERIFY2(item_ && warnings_.isEmpty(), qPrintable(component.errorString() + warnings_.join('\n')));
        QVERIFY(item_->implicitHeight() > 0);
        for (auto it = expected.cbegin(); it != expected.cend(); ++it) {
            auto* part = item_->findChild<QQuickItem*>(it.key());
            const bool text = it.value().type() == QVariant::String;
            QVERIFY2(part && part->isVisible() == (text || it.value().toBool()), qPrintable(it.key()));
            if (text)
                QCOMPARE(part->property("text").toString(), it.value().toString());
        }
    }

};

QTEST_MAIN(TestUiControls)
#include "tst_uicontrols.moc"
