#include "HostWindow.h"

#include "ConsolidatedAnswer.h"
#include "PluginHost.h"
#include "RunSummary.h"
#include "RunWarnings.h"

#include <QPixmap>
#include <QQmlContext>
#include <QQuickWindow>
#include <QScreen>
#include <QTimer>

#include <cstdio>

// The window's QML is compiled into a static library; its resources register only on request.
static void registerWindowResources()
{
    Q_INIT_RESOURCE(tavhost);
}

namespace {
// A picture taller than this would be unreadable anyway; the list scrolls beyond it.
const int maxScreenshotHeight = 4000;
} // namespace

HostWindow::HostWindow(PluginHost* host, RunSummary* summary, QObject* parent)
    : QObject(parent)
    , host_(host)
    , summary_(summary)
{
    registerWindowResources();
    connect(host_, &PluginHost::finished, this, &HostWindow::takeAnswer, Qt::QueuedConnection);
    if (summary_) {
        connect(summary_, &RunSummary::productStarted, this, [this](int index, int total) {
            productIndex_ = index;
            productCount_ = total;
            emit stateChanged();
        }, Qt::QueuedConnection);
    }
}

QString HostWindow::stateFor(int status, const QList<ProductOutcome>& outcomes, int entries)
{
    if (status == 5)
        return QStringLiteral("noProducts");
    if (status == 2)
        return QStringLiteral("cancelled");
    int service = 0;
    int cached = 0;
    for (const ProductOutcome& outcome : outcomes) {
        service += outcome.source == QLatin1String("service");
        cached += outcome.source == QLatin1String("cache");
    }
    if (!outcomes.isEmpty() && service == 0 && cached == 0)
        return QStringLiteral("unreachable");
    if (service < outcomes.size())
        return QStringLiteral("offline");
    return entries == 0 ? QStringLiteral("upToDate") : QStringLiteral("answered");
}

void HostWindow::setState(const QString& state)
{
    state_ = state;
    emit stateChanged();
}

HostWindow::~HostWindow() = default;

QString HostWindow::load()
{
    const QMap<QString, QObject*> objects = host_->qmlObjects();
    for (auto it = objects.cbegin(); it != objects.cend(); ++it)
        engine_.rootContext()->setContextProperty(it.key(), it.value());
    engine_.rootContext()->setContextProperty(QStringLiteral("host"), this);
    QStringList errors;
    connect(&engine_, &QQmlApplicationEngine::warnings, this, [&errors](const QList<QQmlError>& warnings) {
        for (const QQmlError& warning : warnings)
            errors.append(warning.toString());
    });
    engine_.load(QUrl(QStringLiteral("qrc:/tavhost/HostWindow.qml")));
    disconnect(&engine_, &QQmlApplicationEngine::warnings, this, nullptr);
    window_ = engine_.rootObjects().isEmpty() ? nullptr : qobject_cast<QQuickWindow*>(engine_.rootObjects().first());
    if (!window_)
        return errors.isEmpty() ? QStringLiteral("the window's QML gave no window") : errors.join(QLatin1Char('\n'));
    connect(window_, &QQuickWindow::frameSwapped, this, &HostWindow::frameDrawn);
    return QString();
}

void HostWindow::checkForUpdates(int cancelAfterMs)
{
    if (busy_)
        return;
    busy_ = true;
    productIndex_ = 0;
    productCount_ = 0;
    emit busyChanged();
    setState(QStringLiteral("checking"));
    if (screenshotAfterMs_ >= 0 && !pictureTaken_) {
        QTimer::singleShot(screenshotAfterMs_, this, [this] {
            timeForPicture_ = true;
            if (window_)
                window_->update();
        });
    }
    host_->start(cancelAfterMs);
}

void HostWindow::takeAnswer(int status, const QString& data)
{
    const ConsolidatedAnswer answer = ConsolidatedAnswer::read(data);
    if (!answer.errorText().isEmpty())
        std::fprintf(stderr, "tav-host: the answer is not a document: %s\n", qUtf8Printable(answer.errorText()));
    status_ = status;
    data_ = data;
    updates_ = answer.updates();
    news_ = answer.news();
    const QList<ProductOutcome> outcomes = summary_ ? summary_->outcomes() : QList<ProductOutcome>();
    const RunWarnings warnings(outcomes, QVariant(), false);
    reason_ = warnings.reason();
    cachedCount_ = 0;
    uncheckedCount_ = 0;
    cancelledCount_ = 0;
    for (const ProductOutcome& outcome : outcomes) {
        cachedCount_ += outcome.source == QLatin1String("cache");
        uncheckedCount_ += outcome.source != QLatin1String("cache") && outcome.source != QLatin1String("service");
        cancelledCount_ += outcome.source == QLatin1String("cancelled");
    }
    productCount_ = outcomes.size();
    busy_ = false;
    answered_ = true;
    emit answerChanged();
    emit busyChanged();
    setState(stateFor(status, outcomes, updates_.size() + news_.size()));
    if (window_)
        window_->update();
}

void HostWindow::frameDrawn()
{
    if (pictureTaken_)
        return;
    if (screenshotAfterMs_ >= 0) {
        if (timeForPicture_)
            takePicture();
        return;
    }
    if (!answered_)
        return;
    if (!firstShown_) {
        firstShown_ = true;
        emit firstAnswerShown();
    }
    if (screenshotPath_.isEmpty())
        return;
    // The lists are laid out only now; fit the window to all of them, then take the next frame.
    const int fullHeight = qMin(window_->property("fullHeight").toInt(), maxScreenshotHeight);
    if (fullHeight != window_->height() && !resizedForPicture_) {
        resizedForPicture_ = true;
        window_->setHeight(fullHeight);
        return;
    }
    takePicture();
}

void HostWindow::takePicture()
{
    pictureTaken_ = true;
    // Not from inside the frame's own signal: the grab renders a frame of its own.
    QMetaObject::invokeMethod(this, [this] {
        // The software scene graph grabs from its backing store, which the offscreen platform
        // cannot read back; the screen can.
        QImage picture = window_->grabWindow();
        if (picture.isNull() && window_->screen())
            picture = window_->screen()->grabWindow(window_->winId()).toImage();
        if (picture.isNull() || !picture.save(screenshotPath_, "PNG"))
            emit screenshotSaved(QStringLiteral("cannot write the screenshot %1").arg(screenshotPath_));
        else
            emit screenshotSaved(QString());
    }, Qt::QueuedConnection);
}
