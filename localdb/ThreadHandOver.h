#pragma once

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
