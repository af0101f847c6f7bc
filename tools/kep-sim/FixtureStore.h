#pragma once

#include <QString>

namespace KepSim {

// The product XML files the simulator answers with: DIR/<mediaId>/<updateId>.xml, else
// DIR/<mediaId>/default.xml. Updates marked test="1" are served only to callers that ask.
class FixtureStore
{
public:
    explicit FixtureStore(const QString& dir);

    bool hasMedia(const QString& mediaId) const;

    // The product XML for the call, or a null string with *error set when the fixture is
    // missing or not well-formed.
    QString productXml(const QString& mediaId, const QString& updateId, bool withTestUpdates,
                       QString* error, QString* file = nullptr) const;

private:
    static bool isPlainName(const QString& name);

    QString dir_;
};

} // namespace KepSim
