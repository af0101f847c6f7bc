#pragma once

#include <QLibrary>
#include <QString>

namespace KepPlugin {

// A shared library found through the dynamic loader by name: at its major version first
// (libNAME.so.1, all that a runtime-only installation holds), then by the unversioned name.
// It loads on the first lookup and is unloaded with this object.
class VersionedLibrary
{
public:
    VersionedLibrary(const QString& name, int majorVersion);
    ~VersionedLibrary();

    QFunctionPointer resolve(const char* symbol);
    // The name asked for, whichever file the loader took.
    QString fileName() const { return name_; }

private:
    Q_DISABLE_COPY(VersionedLibrary)

    const QString name_;
    const int majorVersion_;
    QLibrary library_;
};

} // namespace KepPlugin
