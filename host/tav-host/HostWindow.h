#pragma once

#include <QObject>
#include <QPointer>
#include <QQmlApplicationEngine>
#include <QQuickWindow>
#include <QString>
#include <QVariantList>

class PluginHost;

// The --gui face of the reference host: the plug-in's QML objects and controls in a window,
// runs started from a button, and on request one picture of the window after the first answer.
class HostWindow : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool busy READ busy NOTIFY busyChanged)
    Q_PROPERTY(int status READ status NOTIFY answerChanged)
    Q_PROPERTY(QVariantList updates READ updates NOTIFY answerChanged)
    Q_PROPERTY(QVariantList news READ news NOTIFY answerChanged)
public:
    explicit HostWindow(PluginHost* host, QObject* parent = nullptr);
    ~HostWindow() override;
    Q_DISABLE_COPY(HostWindow)

    // Creates the window; on failure returns the QML errors.
    QString load();
    QQuickWindow* window() const { return window_; }
    // After the first answer is on screen, the window is grown to show all of it and saved
    // as a PNG; screenshotSaved() follows.
    void setScreenshotPath(const QString& path) { screenshotPath_ = path; }

    // Starts a run unless one is going; the first run may be cancelled after cancelAfterMs.
    Q_INVOKABLE void checkForUpdates(int cancelAfterMs = -1);

    bool busy() const { return busy_; }
    int status() const { return status_; }
    QVariantList updates() const { return updates_; }
    QVariantList news() const { return news_; }
    // The text of the last run, as the plug-in gave it.
    QString data() const { return data_; }

signals:
    void busyChanged();
    void answerChanged();
    // The first frame that shows an answer has been drawn.
    void firstAnswerShown();
    // Empty reason when the picture was written.
    void screenshotSaved(const QString& error);

private:
    void takeAnswer(int status, const QString& data);
    void frameDrawn();

    PluginHost* host_;
    QQmlApplicationEngine engine_;
    QPointer<QQuickWindow> window_;
    QString screenshotPath_;
    bool busy_ = false;
    bool answered_ = false;
    bool firstShown_ = false;
    bool pictureTaken_ = false;
    int status_ = -1;
    QVariantList updates_;
    QVariantList news_;
    QString data_;
};
