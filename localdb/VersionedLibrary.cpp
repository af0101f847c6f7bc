#include "VersionedLibrary.h"

namespace KepPlugin {

VersionedLibrary::VersionedLibrary(const QString& name, int majorVersion)
    : name_(name)
    , majorVersion_(majorVersion)
    , library_(name)
{
}

VersionedLibrary::~VersionedLibrary()
{
    if (library_.isLoaded())
        library_.unload();
}

// Every lookup retries a library that was not there, as QLibrary itself does.
QFunctionPointer VersionedLibrary::resolve(const char* symbol)
{
    if (!library_.isLoaded()) {
        library_.setFileNameAndVersion(name_, majorVersion_);
        if (!library_.load())
            library_.setFileName(name_);
    }
    return library_.resolve(symbol);
}

} // namespace KepPlugin
