#include "plugin/IDataProvider.h"

#include <QColor>
#include <QDirIterator>
#include <QPluginLoader>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickWindow>
#include <QtTest>

namespace {
QStringList warnings_;

void collect(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    if (type != QtDebugMsg && type != QtInfoMsg)
        warnings_.append(message);
}

// How many lines of a control set a colour or a size themselves instead of taking it from the script.
int literalsIn(const QString& source)
{
    static const QRegularExpression colour("[\"'](#[0-9a-f]{3,8}|" + QColor::colorNames().join('|')
                                               + ")[\"']|\\bQt\\.(rgba?|hsla|hsva|hsl|tint)\\s*\\(",
                                           QRegularExpression::CaseInsensitiveOption);
    static const QRegularExpression size(
        "^\\s*(readonly\\s+)?(property\\s+\\w+\\s+)?([\\w.]*\\.)?(width|height|implicitWidth|implicitHeight|pixelSize|"
        "pointSize|spacing|margins|leftMargin|rightMargin|topMargin|bottomMargin|radius|padding|size|x|y)"
        "\\s*:\\s*-?[\\d.]+\\s*;?\\s*$");
    int found = 0;
    for (const QString& line : source.split('\n'))
        found += colour.match(line.section("//", 0, 0)).hasMatch() || size.match(line.section("//", 0, 0)).hasMatch();
    return found;
}
} // namespace

// The module's QML controls: they come from its resources only, take their look from the one
// constants script, and draw partial entries without a single QML warning.
class TestUiControls : public QObject
{
    Q_OBJECT
    QPluginLoader loader_{KEP_PLUGIN_PATH};
    QQmlEngine engine_;
    QQuickWindow window_;
    std::unique_ptr<QQuickItem> item_;

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

        const QVariantMap update{{"title", " Studio 2014 Update 3 "}, {"publishDate", "18 Jun 2014"},
                                 {"downloadSize", "812646400"}, {"description", "Adds the profiler."},
                                 {"infoUrl", "https://downloads.example.invalid/u3.html"},
                                 {"oneClickSupported", "1"}, {"relatedUpdates", QStringList{"1180", "1150"}}};
        const auto with = [&update](const QString& key, const QVariant& value, const QVariantMap& expected) {
            QVariantMap changed = update;
            changed.insert(key, value);
            QTest::newRow(qPrintable(key + "=" + value.toStringList().join(","))) << "UpdateEntry" << changed << expected;
        };
        QTest::newRow("update, every field")
            << "UpdateEntry" << update
            << QVariantMap{{"title", "Studio 2014 Update 3"}, {"publishDate", "18 Jun 2014"}, {"downloadSize", "775 MB"},
                           {"relatedUpdates", "Related updates: 1180, 1150"}, {"oneClickBadge", true},
                           {"description", true}, {"moreInformation", true}};
        with("publishDate", "", {{"publishDate", false}, {"downloadSize", "775 MB"}});
        with("relatedUpdates", QStringList(), {{"relatedUpdates", false}, {"description", true}});
        // A previous-generation product's update says "0"; only exactly "1" earns the badge.
        with("oneClickSupported", "0", {{"oneClickBadge", false}, {"title", "Studio 2014 Update 3"}});
        with("oneClickSupported", "true", {{"oneClickBadge", false}});
        for (const auto& [bytes, shown] : {std::pair("1023", "1023 bytes"), {"1024", "1.0 KB"}, {"10239", "10 KB"},
                                           {" 1610612736 ", "1.5 GB"}, {"-5", ""}, {"about 5 MB", ""}})
            with("downloadSize", bytes, {{"downloadSize", *shown ? QVariant(shown) : false}});
        QTest::newRow("update, only a title") << "UpdateEntry" << QVariantMap{{"title", "Hot fix"}}
                                              << QVariantMap{{"publishDate", false}, {"downloadSize", false},
                                                             {"description", false}, {"relatedUpdates", false}};
        QTest::newRow("news, only a title") << "NewsEntry" << QVariantMap{{"title", " Meet-up "}}
                                            << QVariantMap{{"title", "Meet-up"}, {"publishDate", false}};
        QTest::newRow("section without a count") << "SectionHeader" << QVariantMap{{"text", "News"}}
                                                 << QVariantMap{{"sectionTitle", "News"}, {"sectionCount", false}};
        for (const auto& [kind, headline] : {std::pair("upToDate", "Everything is up to date"), {"cancelled", "Check cancelled"},
                                             {"noProducts", "No registered products"}, {"exploded", "Not checked yet"}})
            QTest::newRow(kind) << "EmptyState" << QVariantMap{{"kind", kind}} << QVariantMap{{"stateHeadline", headline}};
    }

    void controls()
    {
        QFETCH(QString, control);
        QFETCH(QVariantMap, properties);
        QFETCH(QVariantMap, expected);
        item_.reset();
        QQmlComponent component(&engine_, QUrl("qrc:/kepplugin/ui/" + control + ".qml"));
        warnings_.clear();
        const QtMessageHandler previous = qInstallMessageHandler(collect);
        item_.reset(qobject_cast<QQuickItem*>(component.createWithInitialProperties(properties)));
        if (item_) {
            item_->setParentItem(window_.contentItem());
            item_->setWidth(700);
            QSignalSpy drawn(&window_, &QQuickWindow::frameSwapped);
            window_.update();
            drawn.wait(5000);
        }
        qInstallMessageHandler(previous);
        QVERIFY2(item_ && warnings_.isEmpty(), qPrintable(component.errorString() + warnings_.join('\n')));
        QVERIFY(item_->implicitHeight() > 0);
        for (auto it = expected.cbegin(); it != expected.cend(); ++it) {
            auto* part = item_->findChild<QQuickItem*>(it.key());
            QVERIFY2(part, qPrintable(it.key()));
            const bool text = it.value().type() == QVariant::String;
            QVERIFY2(part->isVisible() == (text || it.value().toBool()), qPrintable(it.key()));
            if (text)
                QCOMPARE(part->property("text").toString(), it.value().toString());
        }
    }

    // The scan itself first: each literal it must find, and what it must let pass.
    void onlyTheConstantsScript_data()
    {
        QTest::addColumn<QString>("source");
        QTest::addColumn<int>("literals");
        QTest::newRow("hex colour") << "    color: \"#ff0000\"" << 1;
        QTest::newRow("named colour") << "    border.color: 'white'" << 1;
        QTest::newRow("colour call") << "    color: Qt.rgba(1, 0, 0, 1)" << 1;
        QTest::newRow("pixel size") << "    font.pixelSize: 12" << 1;
        QTest::newRow("property default") << "    property int size: 32" << 1;
        QTest::newRow("from the script") << "    width: 2 * Style.padding\n    color: Style.accent" << 0;
        QTest::newRow("in a comment") << "    x: Style.spacing // not 12 or \"red\"" << 0;
        for (QDirIterator it(":/kepplugin/ui", {"*.qml"}, QDir::Files); it.hasNext();)
            QTest::newRow(qPrintable(it.next())) << it.filePath() << 0;
    }

    void onlyTheConstantsScript()
    {
        QFETCH(QString, source);
        QFETCH(int, literals);
        QFile file(source);
        if (source.startsWith(":/")) {
            QVERIFY(file.open(QIODevice::ReadOnly));
            source = QString::fromUtf8(file.readAll());
            QVERIFY(source.contains("import \"KepStyle.js\" as Style\n") && source.count("Style.") > 1);
            // Controls name each other relatively, never by a place on disk or in the resources.
            QVERIFY(!source.contains("file:") && !source.contains("qrc:"));
        }
        QCOMPARE(literalsIn(source), literals);
    }
};

QTEST_MAIN(TestUiControls)
#include "tst_uicontrols.moc"
