#pragma once

#include <QMutexLocker>

// Qt hands data between threads through its own semaphores and event queue (a blocking queued
// call, a queued functor). ThreadSanitizer cannot see those inside an uninstrumented Qt, so it
// takes every such hand-over for a race; these marks tell it where the hand-over happens.
// Outside a ThreadSanitizer build they compile to nothing.

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#define KEP_HANDED_OVER(address) __tsan_release(static_cast<void*>(address))
#define KEP_TAKEN_OVER(address) __tsan_acquire(static_cast<void*>(address))
#else
#define KEP_HANDED_OVER(address) static_cast<void>(address)
#define KEP_TAKEN_OVER(address) static_cast<void>(address)
#endif

namespace KepPlugin {

// A QMutexLocker whose lock ThreadSanitizer can see: QMutex locks inside Qt too.
class VisibleMutexLocker
{
public:
    explicit VisibleMutexLocker(QMutex* mutex)
        : lock_(mutex)
        , mutex_(mutex)
    {
        KEP_TAKEN_OVER(mutex_);
    }
    ~VisibleMutexLocker() { KEP_HANDED_OVER(mutex_); }
    Q_DISABLE_COPY(VisibleMutexLocker)

private:
    QMutexLocker lock_;
    QMutex* mutex_;
};

} // namespace KepPlugin
