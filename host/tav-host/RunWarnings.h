#pragma once

#include "RunSummary.h"

#include <QStringList>
#include <QVariant>

// The host's own account of a run that did not hear from the service for every product: one
// line per cause, and a hint when the service's address cannot work.
class RunWarnings
{
public:
    // url: the setting KepWebServiceUrl as the plug-in reads it (invalid when nobody set it).
    RunWarnings(const QList<ProductOutcome>& outcomes, const QVariant& url, bool cancelLost);

    // Some product got its answer from the cache or from nowhere.
    bool incomplete() const { return incomplete_; }
    // The lines to print, each starting "tav-host: warning: ".
    QStringList lines() const { return lines_; }
    // The first cause in words, without the transport's own text, for the window.
    QString reason() const { return reason_; }

    // What the transport's error number means, in words.
    static QString describe(const ProductOutcome& outcome);
    // Empty when the address can work, else what is wrong with it.
    static QString urlProblem(const QVariant& url);

private:
    QStringList lines_;
    QString reason_;
    bool incomplete_ = false;
};
