#include "plugin/IDataProvider.h"

#include <QColor>
#include <QDirIterator>
#include <QImageReader>
#include <QPluginLoader>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickWindow>
#include <QRegularExpression>
#include <QtTest>

#include <memory>

// The QML controls the module carries: they come from its resources only, take their look from
// the one style script, and show partial entries without a single QML warning.
class TestUiControls : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void imagesHaveRasterTwins();
    void controls_data();
    void controls();
    void sizeInHumanUnits_data();
    void sizeInHumanUnits();
    void literalsAreFound_data();
    void literalsAreFound();
    void controlsUseOnlyTheStyleScript_data();
    void controlsUseOnlyTheStyleScript();
    void cleanupTestCase();

private:
    QQuickItem* show(const QString& control, const QVariantMap& properties);

    QPluginLoader loader_{QStringLiteral(KEP_PLUGIN_PATH)};
    QQmlEngine engine_;
    std::unique_ptr<QQuickWindow> window_;
    std::unique_ptr<QQuickItem> item_;
};

namespace {

const QString uiRoot = QStringLiteral(":/kepplugin/ui");

QStringList warnings_;

void collectWarnings(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    if (type != QtDebugMsg && type != QtInfoMsg)
        warnings_.append(message);
}

QStringList resourceFiles(const QString& suffix)
{
    QStringList files;
    QDirIterator it(uiRoot, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString file = it.next();
        if (file.endsWith(suffix))
            files.append(file);
    }
    files.sort();
    return files;
}

// What a control's source does that only the style script may do; empty when nothing.
QStringList literalsIn(const QString& source)
{
    static const QRegularExpression hexColour(QStringLiteral("[\"']#[0-9A-Fa-f]{3,8}[\"']"));
    static const QRegularExpression word(QStringLiteral("[\"']([A-Za-z]+)[\"']"));
    static const QRegularExpression colourCall(QStringLiteral("\\bQt\\.(rgba|rgb|hsla|hsva|hsl|tint)\\s*\\("));
    static const QRegularExpression size(QStringLiteral(
        "^\\s*(?:readonly\\s+)?(?:property\\s+\\w+\\s+)?(?:[\\w.]*\\.)?(width|height|implicitWidth|implicitHeight|pixelSize|pointSize|spacing|margins|"
        "leftMargin|rightMargin|topMargin|bottomMargin|radius|padding|size|x|y)\\s*:\\s*-?[\\d.]+\\s*;?\\s*$"));
    QStringList found;
    const QStringList colourNames = QColor::colorNames();
    const QStringList lines = source.split(QLatin1Char('\n'));
    for (int i = 0; i < lines.size(); ++i) {
        const QString line = lines.at(i).section(QStringLiteral("//"), 0, 0);
        const QString where = QStringLiteral("line %1: %2").arg(i + 1).arg(line.trimmed());
        if (hexColour.match(line).hasMatch() || colourCall.match(line).hasMatch() || size.match(line).hasMatch())
            found.append(where);
        for (auto it = word.globalMatch(line); it.hasNext();) {
            if (colourNames.contains(it.next().captured(1).toLower()))
                found.append(where);
        }
    }
    return found;
}

QQuickItem* part(QQuickItem* root, const QString& name)
{
    if (root->objectName() == name)
        return root;
    return root->findChild<QQuickItem*>(name);
}

} // namespace

void TestUiControls::initTestCase()
{
    QVERIFY2(loader_.load(), qPrintable(loader_.errorString()));
    auto* provider = qobject_cast<IDataProvider*>(loader_.instance());
    QVERIFY(provider);
    QVERIFY(provider->initialize());
    // This program links no resources of its own: whatever is there came with the module.
    QVERIFY2(!resourceFiles(QStringLiteral(".qml")).isEmpty(), "the module registered no controls");
    QVERIFY(QFile::exists(uiRoot + QStringLiteral("/KepStyle.js")));
    QVERIFY(QFile::exists(uiRoot + QStringLiteral("/qmldir")));
    window_ = std::make_unique<QQuickWindow>();
    window_->resize(800, 600);
    window_->show();
}

void TestUiControls::cleanupTestCase()
{
    // One more frame lets the scene graph release the last control's textures.
    item_.reset();
    QSignalSpy drawn(window_.get(), &QQuickWindow::frameSwapped);
    window_->update();
    drawn.wait(5000);
    window_.reset();
}

QQuickItem* TestUiControls::show(const QString& control, const QVariantMap& properties)
{
    item_.reset();
    QQmlComponent component(&engine_, QUrl(QStringLiteral("qrc:/kepplugin/ui/") + control));
    warnings_.clear();
    const QtMessageHandler previous = qInstallMessageHandler(collectWarnings);
    QObject* object = component.createWithInitialProperties(properties);
    item_.reset(qobject_cast<QQuickItem*>(object));
    if (item_) {
        item_->setParentItem(window_->contentItem());
        item_->setWidth(700);
        QSignalSpy drawn(window_.get(), &QQuickWindow::frameSwapped);
        window_->update();
        drawn.wait(5000);
    }
    qInstallMessageHandler(previous);
    for (const QQmlError& error : component.errors())
        warnings_.append(error.toString());
    return item_.get();
}

void TestUiControls::imagesHaveRasterTwins()
{
    const QStringList svgs = resourceFiles(QStringLiteral(".svg"));
    QVERIFY(!svgs.isEmpty());
    const bool svgReadable = QImageReader::supportedImageFormats().contains("svg");
    for (const QString& svg : svgs) {
        QString png = svg;
        png.replace(QRegularExpression(QStringLiteral("\\.svg$")), QStringLiteral(".png"));
        QVERIFY2(!QImage(png).isNull(), qPrintable(png + QStringLiteral(" is missing or unreadable")));
        if (svgReadable)
            QVERIFY2(!QImage(svg).isNull(), qPrintable(svg));
    }
}

void TestUiControls::controls_data()
{
    QTest::addColumn<QString>("control");
    QTest::addColumn<QVariantMap>("properties");
    QTest::addColumn<QStringList>("shown");
    QTest::addColumn<QStringList>("hidden");
    QTest::addColumn<QVariantMap>("texts");

    const QVariantMap update{{"title", "  Studio 2014 Update 3  "},
                             {"publishDate", "18 Jun 2014"},
                             {"downloadSize", "812646400"},
                             {"description", "Adds the new profiler."},
                             {"infoUrl", "https://downloads.example.invalid/upd3.html"},
                             {"oneClickSupported", "1"},
                             {"relatedUpdates", QStringList{"1180", "1150"}}};
    const QStringList allParts{"oneClickBadge", "publishDate",    "downloadSize",
                               "description",   "relatedUpdates", "moreInformation"};
    auto with = [&update](const QString& key, const QVariant& value) {
        QVariantMap changed = update;
        changed.insert(key, value);
        return changed;
    };
    auto without = [&allParts](const QString& part) {
        QStringList parts = allParts;
        parts.removeAll(part);
        return parts;
    };

    QTest::newRow("update, every field")
        << "UpdateEntry.qml" << update << allParts << QStringList{}
        << QVariantMap{{"title", "Studio 2014 Update 3"},
                       {"downloadSize", "775 MB"},
                       {"relatedUpdates", "Related updates: 1180, 1150"}};
    QTest::newRow("update, empty date") << "UpdateEntry.qml" << with("publishDate", "") << without("publishDate")
                                        << QStringList{"publishDate"} << QVariantMap{{"downloadSize", "775 MB"}};
    QTest::newRow("update, no related updates")
        << "UpdateEntry.qml" << with("relatedUpdates", QStringList{}) << without("relatedUpdates")
        << QStringList{"relatedUpdates"} << QVariantMap{};
    QTest::newRow("update of a previous-generation product")
        << "UpdateEntry.qml" << with("oneClickSupported", "0") << without("oneClickBadge")
        << QStringList{"oneClickBadge"} << QVariantMap{};
    QTest::newRow("update, one-click flag not exactly 1")
        << "UpdateEntry.qml" << with("oneClickSupported", "true") << without("oneClickBadge")
        << QStringList{"oneClickBadge"} << QVariantMap{};
    QTest::newRow("update, size is not a number")
        << "UpdateEntry.qml" << with("downloadSize", "about 5 MB") << without("downloadSize")
        << QStringList{"downloadSize"} << QVariantMap{};
    QTest::newRow("update, no link") << "UpdateEntry.qml" << with("infoUrl", "  ") << without("moreInformation")
                                     << QStringList{"moreInformation"} << QVariantMap{};
    QTest::newRow("update, only a title")
        << "UpdateEntry.qml" << QVariantMap{{"title", "Hot fix"}} << QStringList{"title"} << allParts
        << QVariantMap{{"title", "Hot fix"}};

    QTest::newRow("news, every field")
        << "NewsEntry.qml"
        << QVariantMap{{"title", " Conference "}, {"publishDate", "2 May 2014"}, {"description", "Berlin."}}
        << QStringList{"title", "publishDate", "description"} << QStringList{}
        << QVariantMap{{"title", "Conference"}, {"publishDate", "2 May 2014"}};
    QTest::newRow("news, empty date and description")
        << "NewsEntry.qml" << QVariantMap{{"title", "Conference"}} << QStringList{"title"}
        << QStringList{"publishDate", "description"} << QVariantMap{};

    QTest::newRow("section with a count") << "SectionHeader.qml" << QVariantMap{{"text", "Updates"}, {"count", 5}}
                                          << QStringList{"sectionTitle", "sectionCount"} << QStringList{}
                                          << QVariantMap{{"sectionTitle", "Updates"}};
    QTest::newRow("section without a count") << "SectionHeader.qml" << QVariantMap{{"text", "News"}}
                                             << QStringList{"sectionTitle"} << QStringList{"sectionCount"}
                                             << QVariantMap{};

    const QStringList stateParts{"stateIcon", "stateHeadline", "stateDetail"};
    QTest::newRow("nothing offered") << "EmptyState.qml" << QVariantMap{{"kind", "upToDate"}} << stateParts
                                     << QStringList{} << QVariantMap{{"stateHeadline", "Everything is up to date"}};
    QTest::newRow("cancelled") << "EmptyState.qml" << QVariantMap{{"kind", "cancelled"}} << stateParts
                               << QStringList{} << QVariantMap{{"stateHeadline", "Check cancelled"}};
    QTest::newRow("no products") << "EmptyState.qml" << QVariantMap{{"kind", "noProducts"}} << stateParts
                                 << QStringList{} << QVariantMap{{"stateHeadline", "No registered products"}};
    QTest::newRow("unknown state") << "EmptyState.qml" << QVariantMap{{"kind", "exploded"}} << stateParts
                                   << QStringList{} << QVariantMap{{"stateHeadline", "Not checked yet"}};
}

void TestUiControls::controls()
{
    QFETCH(QString, control);
    QFETCH(QVariantMap, properties);
    QFETCH(QStringList, shown);
    QFETCH(QStringList, hidden);
    QFETCH(QVariantMap, texts);

    QQuickItem* root = show(control, properties);
    QVERIFY2(warnings_.isEmpty(), qPrintable(warnings_.join(QLatin1Char('\n'))));
    QVERIFY(root);
    QVERIFY(root->implicitHeight() > 0);
    for (const QString& name : shown) {
        QQuickItem* item = part(root, name);
        QVERIFY2(item, qPrintable(name));
        QVERIFY2(item->isVisible(), qPrintable(name + QStringLiteral(" should show")));
    }
    for (const QString& name : hidden) {
        QQuickItem* item = part(root, name);
        QVERIFY2(item, qPrintable(name));
        QVERIFY2(!item->isVisible(), qPrintable(name + QStringLiteral(" should be hidden")));
    }
    for (auto it = texts.cbegin(); it != texts.cend(); ++it) {
        QQuickItem* item = part(root, it.key());
        QVERIFY2(item, qPrintable(it.key()));
        QCOMPARE(item->property("text").toString(), it.value().toString());
    }
}

void TestUiControls::sizeInHumanUnits_data()
{
    QTest::addColumn<QString>("bytes");
    QTest::addColumn<QString>("shown");
    QTest::newRow("nothing") << "0" << "0 bytes";
    QTest::newRow("just below a kilobyte") << "1023" << "1023 bytes";
    QTest::newRow("one kilobyte") << "1024" << "1.0 KB";
    QTest::newRow("half kilobytes") << "1536" << "1.5 KB";
    QTest::newRow("rounds up to ten") << "10239" << "10 KB";
    QTest::newRow("ten megabytes") << "10485760" << "10 MB";
    QTest::newRow("demo update") << "812646400" << "775 MB";
    QTest::newRow("gigabytes") << "1610612736" << "1.5 GB";
    QTest::newRow("terabyte") << "1099511627776" << "1.0 TB";
    QTest::newRow("blanks around") << " 2048 " << "2.0 KB";
    QTest::newRow("empty") << "" << "";
    QTest::newRow("negative") << "-5" << "";
    QTest::newRow("with a unit") << "5 GB" << "";
}

void TestUiControls::sizeInHumanUnits()
{
    QFETCH(QString, bytes);
    QFETCH(QString, shown);
    QQuickItem* root = show(QStringLiteral("UpdateEntry.qml"), {{"title", "t"}, {"downloadSize", bytes}});
    QVERIFY2(warnings_.isEmpty(), qPrintable(warnings_.join(QLatin1Char('\n'))));
    QVERIFY(root);
    QCOMPARE(part(root, QStringLiteral("downloadSize"))->property("text").toString(), shown);
}

void TestUiControls::literalsAreFound_data()
{
    QTest::addColumn<QString>("source");
    QTest::addColumn<int>("findings");
    QTest::newRow("hex colour") << "    color: \"#ff0000\"" << 1;
    QTest::newRow("named colour") << "    border.color: 'white'" << 1;
    QTest::newRow("colour call") << "    color: Qt.rgba(1, 0, 0, 1)" << 1;
    QTest::newRow("pixel size") << "    font.pixelSize: 12" << 1;
    QTest::newRow("fraction") << "    radius: 2.5;" << 1;
    QTest::newRow("margin") << "    anchors.leftMargin: 4" << 1;
    QTest::newRow("property default") << "    property int size: 32" << 1;
    QTest::newRow("from the script") << "    width: 2 * Style.padding\n    color: Style.accent" << 0;
    QTest::newRow("in a comment") << "    x: Style.spacing // not 12 or \"red\"" << 0;
}

void TestUiControls::literalsAreFound()
{
    QFETCH(QString, source);
    QFETCH(int, findings);
    QCOMPARE(literalsIn(source).size(), findings);
}

void TestUiControls::controlsUseOnlyTheStyleScript_data()
{
    QTest::addColumn<QString>("file");
    for (const QString& file : resourceFiles(QStringLiteral(".qml")))
        QTest::newRow(qPrintable(file.section(QLatin1Char('/'), -1))) << file;
}

void TestUiControls::controlsUseOnlyTheStyleScript()
{
    QFETCH(QString, file);
    QFile qml(file);
    QVERIFY(qml.open(QIODevice::ReadOnly));
    const QString source = QString::fromUtf8(qml.readAll());
    QVERIFY2(source.contains(QStringLiteral("import \"KepStyle.js\" as Style")), "does not import the style script");
    QVERIFY2(source.contains(QStringLiteral("Style.")), "imports the style script but uses none of it");
    QVERIFY2(!source.contains(QStringLiteral("file:")) && !source.contains(QStringLiteral("qrc:")),
             "controls refer to each other relatively, never by an absolute place");
    const QStringList found = literalsIn(source);
    QVERIFY2(found.isEmpty(), qPrintable(found.join(QLatin1Char('\n'))));
    QFile qmldir(uiRoot + QStringLiteral("/qmldir"));
    QVERIFY(qmldir.open(QIODevice::ReadOnly));
    QVERIFY2(QString::fromUtf8(qmldir.readAll()).contains(QLatin1Char(' ') + file.section(QLatin1Char('/'), -1)),
             "not listed in qmldir");
}

QTEST_MAIN(TestUiControls)
#include "tst_uicontrols.moc"
