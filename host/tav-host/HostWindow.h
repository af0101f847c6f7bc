#pragma once

#include <QObject>
#include <QPointer>
#include <QQmlApplicationEngine>
#include <QQuickWindow>
#include <QString>
#include <QVariantList>

class PluginHost;
class RunSummary;
struct ProductOutcome;

// The --gui face of the reference host: the plug-in's QML objects and controls in a window,
// runs started from a button, and on request one picture of the window after the first answer.
class HostWindow : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool busy READ busy NOTIFY busyChanged)
    Q_PROPERTY(int status READ status NOTIFY answerChanged)
    Q_PROPERTY(QVariantList updates READ updates NOTIFY answerChanged)
    Q_PROPERTY(QVariantList news READ news NOTIFY answerChanged)
    // What the window says about the last run; see stateFor().
    Q_PROPERTY(QString state READ state NOTIFY stateChanged)
    Q_PROPERTY(QString reason READ reason NOTIFY stateChanged)
    Q_PROPERTY(int productIndex READ productIndex NOTIFY stateChanged)
    Q_PROPERTY(int productCount READ productCount NOTIFY stateChanged)
    Q_PROPERTY(int cachedCount READ cachedCount NOTIFY stateChanged)
    Q_PROPERTY(int uncheckedCount READ uncheckedCount NOTIFY stateChanged)
    Q_PROPERTY(int cancelledCount READ cancelledCount NOTIFY stateChanged)
public:
    // summary: where the window learns what happened to each product; without one, every
    // completed run counts as answered by the service.
    explicit HostWindow(PluginHost* host, RunSummary* summary = nullptr, QObject* parent = nullptr);
    ~HostWindow() override;
    Q_DISABLE_COPY(HostWindow)

    // Creates the window; on failure returns the QML errors.
    QString load();
    QQuickWindow* window() const { return window_; }
    // After the first answer is on screen, the window is grown to show all of it and saved
    // as a PNG; screenshotSaved() follows.
    // With afterMs of 0 or more the picture is taken that long after the run starts instead.
    void setScreenshotPath(const QString& path, int afterMs = -1)
    {
        screenshotPath_ = path;
        screenshotAfterMs_ = afterMs;
    }

    // The state a finished run leaves the window in: "noProducts", "cancelled", "unreachable"
    // (no product answered, by the service or the cache), "offline" (some answers from the cache
    // or none), "upToDate" (every product answered by the service, nothing offered) or "answered".
    static QString stateFor(int status, const QList<ProductOutcome>& outcomes, int entries);

    // Starts a run unless one is going; the first run may be cancelled after cancelAfterMs.
    Q_INVOKABLE void checkForUpdates(int cancelAfterMs = -1);

    bool busy() const { return busy_; }
    int status() const { return status_; }
    QVariantList updates() const { return updates_; }
    QVariantList news() const { return news_; }
    // The text of the last run, as the plug-in gave it.
    QString data() const { return data_; }
    QString state() const { return state_; }
    QString reason() const { return reason_; }
    int productIndex() const { return productIndex_; }
    int productCount() const { return productCount_; }
    int cachedCount() const { return cachedCount_; }
    int uncheckedCount() const { return uncheckedCount_; }
    int cancelledCount() const { return cancelledCount_; }

signals:
    void busyChanged();
    void stateChanged();
    void answerChanged();
    // The first frame that shows an answer has been drawn.
    void firstAnswerShown();
    // Empty reason when the picture was written.
    void screenshotSaved(const QString& error);

private:
    void takeAnswer(int status, const QString& data);
    void frameDrawn();
    void takePicture();
    void setState(const QString& state);

    PluginHost* host_;
    RunSummary* summary_;
    QQmlApplicationEngine engine_;
    QPointer<QQuickWindow> window_;
    QString screenshotPath_;
    int screenshotAfterMs_ = -1;
    bool timeForPicture_ = false;
    QString state_ = QStringLiteral("notChecked");
    QString reason_;
    int productIndex_ = 0;
    int productCount_ = 0;
    int cachedCount_ = 0;
    int uncheckedCount_ = 0;
    int cancelledCount_ = 0;
    bool busy_ = false;
    bool answered_ = false;
    bool firstShown_ = false;
    bool pictureTaken_ = false;
    bool resizedForPicture_ = false;
    int status_ = -1;
    QVariantList updates_;
    QVariantList news_;
    QString data_;
};
