#pragma once

#include <QString>
#include <QStringList>
#include <QVariantMap>

// What the reference host was asked to do on its command line.
struct HostOptions
{
    QString pluginPath;
    QVariantMap settings;
    QStringList settingsFiles;
    int logLevel = 2;
    int cancelAfterMs = -1;
    bool summary = false;
    bool help = false;
    QString caFile;
    bool gui = false;
    QString screenshotPath;

    // Fills the options from the arguments; on a usage error returns false with the reason.
    bool parse(const QStringList& arguments, QString* error);
    static QString usage();
};
