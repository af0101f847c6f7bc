#include "HostWindow.h"
#include "KepSimProcess.h"
#include "PluginHost.h"
#include "TestDb.h"

#include "tavcore/Logger.h"
#include "tavcore/SettingsManager.h"

#include <QDir>
#include <QProcess>
#include <QQuickItem>
#include <QTemporaryDir>
#include <QXmlStreamReader>
#include <QtTest>

#include <optional>

// The reference host's window against the simulator: the answer drawn with the plug-in's
// controls, the states without entries, the buttons, and the --gui command line.
class TestHostWindow : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void init();
    void demoAnswer();
    void checkAgainFromTheButton();
    void emptyStates_data();
    void emptyStates();
    void commandLines_data();
    void commandLines();

private:
    // Loads the module and the window; false when either fails (the test has failed then).
    bool open(PluginHost& host, HostWindow& window, const QString& serviceUrl);
    QList<QQuickItem*> entries(HostWindow& window, const QString& name);
    QQuickItem* item(HostWindow& window, const QString& name);

    KepSimProcess sim_;
    QTemporaryDir scratch_;
};

namespace {

const QString screenshotPath = QStringLiteral(KEP_SCREENSHOT_DIR "/tav-host-demo.png");

bool copyExamples()
{
    const QString examples = QStringLiteral(KEP_EXAMPLES_DIR "/db/");
    for (const auto& [from, to] : {qMakePair(QStringLiteral("user"), TestDb::userDir()),
                                   qMakePair(QStringLiteral("system"), TestDb::systemDir())}) {
        const QDir source(examples + from);
        for (const QString& file : source.entryList(QDir::Files)) {
            if (!QFile::copy(source.filePath(file), to + QLatin1Char('/') + file))
                return false;
        }
    }
    return true;
}

// While it lives, clicks the window's Cancel button the moment the plug-in sends a request:
// the click is queued into the event loop that waits for the answer, as a user's would be.
class CancelOnRequest
{
public:
    CancelOnRequest(QQuickItem* button, const QStringList& mediaIds)
        : level_(TavCoreShared::TavLogger::Logger::instance()->logLevel())
    {
        button_ = button;
        lines_.clear();
        for (const QString& mediaId : mediaIds)
            lines_.append(QStringLiteral("0 \"NetworkManager::call_GetTAVProductInfo: mediaId=[%1];updateId=[1200];"
                                         "showTestUpdate=[0]\"").arg(mediaId));
        TavCoreShared::TavLogger::Logger::instance()->setLogLevel(0);
        previous_ = qInstallMessageHandler(handle);
    }
    ~CancelOnRequest()
    {
        qInstallMessageHandler(previous_);
        TavCoreShared::TavLogger::Logger::instance()->setLogLevel(level_);
        button_ = nullptr;
    }
    Q_DISABLE_COPY(CancelOnRequest)

private:
    static void handle(QtMsgType type, const QMessageLogContext& context, const QString& message)
    {
        if (lines_.contains(message) && button_)
            QMetaObject::invokeMethod(button_, "clicked", Qt::QueuedConnection);
        else if (type != QtCriticalMsg && previous_)
            previous_(type, context, message);
    }

    int level_;
    static inline QPointer<QQuickItem> button_;
    static inline QStringList lines_;
    static inline QtMessageHandler previous_ = nullptr;
};

QList<QPair<QString, QString>> oneClickFlags(const QString& xml, int* news)
{
    QList<QPair<QString, QString>> flags;
    QXmlStreamReader reader(xml);
    QString id;
    *news = 0;
    while (!reader.atEnd()) {
        if (reader.readNext() != QXmlStreamReader::StartElement)
            continue;
        if (reader.name() == QLatin1String("message")) {
            ++*news;
        } else if (reader.name() == QLatin1String("update") && reader.readNextStartElement()) {
            id = reader.readElementText().trimmed(); // an update's first field is its id
        } else if (reader.name() == QLatin1String("one_click_update_mode_is_supported")) {
            flags.append({id, reader.readElementText()});
        }
    }
    return flags;
}

bool distinctColours(const QImage& picture, int atLeast)
{
    QSet<QRgb> colours;
    for (int y = 0; y < picture.height() && colours.size() < atLeast; y += 7) {
        for (int x = 0; x < picture.width(); x += 7)
            colours.insert(picture.pixel(x, y));
    }
    return colours.size() >= atLeast;
}

} // namespace

void TestHostWindow::initTestCase()
{
    QVERIFY2(TestDb::isolated(), "run through ctest: needs the temporary databases");
    QVERIFY(scratch_.isValid());
    // An auto-uninstalled record is removed relative to the working directory.
    QVERIFY(QDir::setCurrent(scratch_.path()));
    QVERIFY2(sim_.start(QStringLiteral(KEP_SIM_PATH), QStringLiteral(KEP_EXAMPLES_DIR "/service")),
             qPrintable(sim_.errorText()));
}

void TestHostWindow::init()
{
    TestDb::reset();
}

bool TestHostWindow::open(PluginHost& host, HostWindow& window, const QString& serviceUrl)
{
    auto* settings = TavCoreShared::TavSettings::SettingsManager::instance();
    settings->setProperty(QStringLiteral("KepWebServiceUrl"), serviceUrl);
    settings->setProperty(QStringLiteral("ShowTestUpdates"), QStringLiteral("0"));
    const QString loadError = host.load(QStringLiteral(KEP_PLUGIN_PATH));
    const QString windowError = loadError.isEmpty() ? window.load() : QString();
    if (!loadError.isEmpty() || !windowError.isEmpty()) {
        qWarning("%s%s", qPrintable(loadError), qPrintable(windowError));
        return false;
    }
    return window.window() != nullptr;
}

// The items as drawn: Repeater delegates and a Window's items are not QObject children of
// the content item, but they are in its item tree.
QList<QQuickItem*> TestHostWindow::entries(HostWindow& window, const QString& name)
{
    QList<QQuickItem*> found;
    QList<QQuickItem*> pending{window.window()->contentItem()};
    while (!pending.isEmpty()) {
        QQuickItem* item = pending.takeFirst();
        if (item->objectName() == name)
            found.append(item);
        pending.append(item->childItems());
    }
    return found;
}

QQuickItem* TestHostWindow::item(HostWindow& window, const QString& name)
{
    const QList<QQuickItem*> found = entries(window, name);
    return found.isEmpty() ? nullptr : found.first();
}

void TestHostWindow::demoAnswer()
{
    QVERIFY(copyExamples());
    PluginHost host;
    HostWindow window(&host);
    QVERIFY(open(host, window, sim_.url()));
    QFile::remove(screenshotPath);
    window.setScreenshotPath(screenshotPath);
    QSignalSpy shown(&window, &HostWindow::firstAnswerShown);
    QSignalSpy saved(&window, &HostWindow::screenshotSaved);
    QElapsedTimer clock;
    clock.start();
    qint64 shownAfter = -1;
    connect(&window, &HostWindow::firstAnswerShown, this, [&] { shownAfter = clock.elapsed(); });
    window.checkForUpdates();
    QVERIFY(saved.wait(60000));
    QCOMPARE(shown.count(), 1);
    QCOMPARE(saved.first().first().toString(), QString());
    QCOMPARE(window.status(), 0);
    qInfo("first answer on screen %lld ms after the check started; picture in %s", shownAfter,
          qPrintable(screenshotPath));

    int news = 0;
    const QList<QPair<QString, QString>> flags = oneClickFlags(window.data(), &news);
    QVERIFY2(flags.size() > 0 && news > 0, "the demo data must offer updates and news");
    const QList<QQuickItem*> updates = entries(window, QStringLiteral("updateEntry"));
    QCOMPARE(updates.size(), flags.size());
    QCOMPARE(entries(window, QStringLiteral("newsEntry")).size(), news);
    QCOMPARE(item(window, QStringLiteral("emptyState"))->isVisible(), false);
    QSet<QString> badgesSeen;
    for (QQuickItem* update : updates) {
        const QString id = update->property("updateId").toString();
        const auto flag = std::find_if(flags.cbegin(), flags.cend(), [&id](const auto& f) { return f.first == id; });
        QVERIFY2(flag != flags.cend(), qPrintable(id));
        QQuickItem* badge = update->findChild<QQuickItem*>(QStringLiteral("oneClickBadge"));
        QVERIFY(badge);
        QCOMPARE(badge->isVisible(), flag->second == QLatin1String("1"));
        badgesSeen.insert(flag->second);
    }
    QCOMPARE(badgesSeen, (QSet<QString>{"0", "1"}));

    const QImage picture(screenshotPath);
    QVERIFY(!picture.isNull());
    QCOMPARE(picture.size(), window.window()->size() * window.window()->devicePixelRatio());
    // Grown to the whole answer, and not a blank page.
    QVERIFY(picture.height() >= window.window()->property("fullHeight").toInt());
    QVERIFY(distinctColours(picture, 16));
}

void TestHostWindow::checkAgainFromTheButton()
{
    TestDb::writeRecord(true, QStringLiteral("{STUDIO}"), {{"MediaID", "MEDIA-STUDIO-2014"}, {"UpdateID", "1200"}});
    PluginHost host;
    HostWindow window(&host);
    QVERIFY(open(host, window, sim_.url()));
    QSignalSpy busy(&window, &HostWindow::busyChanged);
    window.checkForUpdates();
    QTRY_VERIFY_WITH_TIMEOUT(!window.busy(), 60000);
    QCOMPARE(window.status(), 0);
    const int first = entries(window, QStringLiteral("updateEntry")).size();
    QVERIFY(first > 0);

    TestDb::writeRecord(false, QStringLiteral("{TOOLS}"), {{"MediaID", "MEDIA-TOOLS-2013"}, {"UpdateID", "310"}});
    QQuickItem* button = item(window, QStringLiteral("checkButton"));
    QVERIFY(button && button->isEnabled());
    busy.clear();
    QVERIFY(QMetaObject::invokeMethod(button, "clicked"));
    QVERIFY(window.busy());
    QVERIFY(!button->isEnabled());
    QTRY_VERIFY_WITH_TIMEOUT(!window.busy(), 60000);
    QCOMPARE(busy.count(), 2);
    QCOMPARE(window.status(), 0);
    QVERIFY(entries(window, QStringLiteral("updateEntry")).size() > first);
}

void TestHostWindow::emptyStates_data()
{
    QTest::addColumn<QStringList>("mediaIds");
    QTest::addColumn<QStringList>("simArguments");
    QTest::addColumn<bool>("cancel");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("headline");
    QTest::newRow("no products") << QStringList{} << QStringList{} << false << 5 << "No registered products";
    QTest::newRow("nothing offered") << QStringList{"MEDIA-UNKNOWN"} << QStringList{} << false << 0 << "Everything is up to date";
    // A cancel is noticed before the next product: the run needs a second one to stop early.
    QTest::newRow("cancelled before any answer")
        << QStringList{"MEDIA-STUDIO-2014", "MEDIA-TOOLS-2013"} << QStringList{"--delay-ms", "20000"} << true << 2 << "Check cancelled";
}

void TestHostWindow::emptyStates()
{
    QFETCH(QStringList, mediaIds);
    QFETCH(QStringList, simArguments);
    QFETCH(bool, cancel);
    QFETCH(int, status);
    QFETCH(QString, headline);
    KepSimProcess slowSim;
    QString url = sim_.url();
    if (!simArguments.isEmpty()) {
        QVERIFY2(slowSim.start(QStringLiteral(KEP_SIM_PATH), QStringLiteral(KEP_EXAMPLES_DIR "/service"), simArguments),
                 qPrintable(slowSim.errorText()));
        url = slowSim.url();
    }
    for (const QString& mediaId : mediaIds)
        TestDb::writeRecord(true, QStringLiteral("{%1}").arg(mediaId), {{"MediaID", mediaId}, {"UpdateID", "1200"}});
    PluginHost host;
    HostWindow window(&host);
    QVERIFY(open(host, window, url));
    QQuickItem* cancelButton = item(window, QStringLiteral("cancelButton"));
    QVERIFY(cancelButton);
    QVERIFY(!cancelButton->isVisible());
    // The button is wired to the plug-in's own invokable, as a host's QML would do it.
    std::optional<CancelOnRequest> canceller;
    if (cancel)
        canceller.emplace(cancelButton, mediaIds);
    QElapsedTimer clock;
    clock.start();
    window.checkForUpdates();
    QVERIFY(cancelButton->isVisible());
    QTRY_VERIFY_WITH_TIMEOUT(!window.busy(), 60000);
    canceller.reset();
    QVERIFY2(clock.elapsed() < 15000, "a cancelled run must not wait for the service");
    QCOMPARE(window.status(), status);
    QVERIFY(!cancelButton->isVisible());
    QCOMPARE(entries(window, QStringLiteral("updateEntry")).size(), 0);
    QQuickItem* state = item(window, QStringLiteral("emptyState"));
    QVERIFY(state && state->isVisible());
    QCOMPARE(state->findChild<QQuickItem*>(QStringLiteral("stateHeadline"))->property("text").toString(), headline);
}

void TestHostWindow::commandLines_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<bool>("display");
    QTest::addColumn<bool>("withProducts");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<bool>("answered");
    QTest::addColumn<QString>("errorPattern");
    const QString picture = scratch_.filePath(QStringLiteral("window.png"));
    QTest::newRow("picture of the demo") << QStringList{"--gui", "--screenshot", picture} << false << true << 0 << true
                                         << "^tav-host: first answer shown after \\d+ ms$";
    QTest::newRow("picture without --gui") << QStringList{"--screenshot", picture} << true << true << 64 << false
                                           << "^tav-host: --screenshot needs --gui$";
    QTest::newRow("window without a display")
        << QStringList{"--gui"} << false << true << 1 << false << "^tav-host: --gui needs a display \\(DISPLAY or WAYLAND_DISPLAY\\)";
    QTest::newRow("unwritable picture") << QStringList{"--gui", "--screenshot", picture + "/no/such/dir.png"}
                                        << false << true << 1 << true << "^tav-host: cannot write the screenshot ";
    // Without --gui the host stays a console program, display or not.
    QTest::newRow("plain run needs no display") << QStringList{} << false << false << 5 << false << QString();
}

void TestHostWindow::commandLines()
{
    QFETCH(QStringList, arguments);
    QFETCH(bool, display);
    QFETCH(bool, withProducts);
    QFETCH(int, exitCode);
    QFETCH(bool, answered);
    QFETCH(QString, errorPattern);
    if (withProducts)
        QVERIFY(copyExamples());
    QFile::remove(scratch_.filePath(QStringLiteral("window.png")));
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    if (!display) {
        for (const char* name : {"QT_QPA_PLATFORM", "QT_QUICK_BACKEND", "DISPLAY", "WAYLAND_DISPLAY"})
            environment.remove(QString::fromLatin1(name));
    }
    QProcess process;
    process.setProcessEnvironment(environment);
    process.setWorkingDirectory(scratch_.path());
    process.start(QStringLiteral(TAV_HOST_PATH), QStringList{"--set", "KepWebServiceUrl=" + sim_.url()} + arguments);
    QVERIFY(process.waitForFinished(120000));
    const QString errors = QString::fromUtf8(process.readAllStandardError());
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QVERIFY2(process.exitCode() == exitCode, qPrintable(errors));
    if (!errorPattern.isEmpty()) {
        const QRegularExpression pattern(errorPattern, QRegularExpression::MultilineOption);
        QVERIFY2(pattern.match(errors).hasMatch(), qPrintable(errors));
    }
    const QByteArray out = process.readAllStandardOutput();
    QCOMPARE(out.endsWith("</root>\n"), answered);
    if (!answered)
        QCOMPARE(out, QByteArray());
    const QImage picture(scratch_.filePath(QStringLiteral("window.png")));
    QCOMPARE(!picture.isNull(), exitCode == 0);
    if (exitCode == 0)
        QVERIFY(distinctColours(picture, 16));
}

QTEST_MAIN(TestHostWindow)
#include "tst_hostwindow.moc"
