#pragma once

#include <QString>
#include <QStringList>
#include <QVariantMap>

// What the reference host was asked to do on its command line.
struct HostOptions
{
    enum class Action { Run, Help, Version };
    enum class Progress { Auto, Lines, Off };

    Action action = Action::Run;
    QString pluginPath;
    QVariantMap settings;
    QStringList settingsFiles;
    int logLevel = 2;
    int cancelAfterMs = -1;
    bool summary = false;
    bool strict = false;
    Progress progress = Progress::Auto;
    QString caFile;
    bool gui = false;
    QString screenshotPath;
    int screenshotAfterMs = -1;

    // Fills the options from the arguments (the program name first); on a usage error returns
    // false with the reason. Needs no application object.
    bool parse(const QStringList& arguments, QString* error);
    // The whole --help text: usage, options, exit status, environment, settings file.
    static QString helpText();
};
