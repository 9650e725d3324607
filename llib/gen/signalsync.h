// Tells ThreadSanitizer that setting a signal object happens before a wait that saw it set.
// A pipe and select carry that order in reality, but the sanitizer cannot see through them and
// would report every hand-over done with a signal object as a data race. No code in other builds.
#pragma once

#include <sys/select.h>

#if defined(__SANITIZE_THREAD__)
#define TAVIX_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TAVIX_THREAD_SANITIZER 1
#endif
#endif

#if defined(TAVIX_THREAD_SANITIZER)
extern "C" void AnnotateHappensBefore(const char* file, int line, const volatile void* address);
extern "C" void AnnotateHappensAfter(const char* file, int line, const volatile void* address);

namespace signalsync {
// One synchronisation address per descriptor a signal object can be read from.
inline char keys[FD_SETSIZE];

inline void Released(int readFd) {
    if (readFd >= 0 && readFd < FD_SETSIZE)
        AnnotateHappensBefore(__FILE__, __LINE__, &keys[readFd]);
}

inline void AcquiredReady(int maxFd, const fd_set& ready) {
    for (int fd = 0; fd <= maxFd && fd < FD_SETSIZE; ++fd)
        if (FD_ISSET(fd, &ready))
            AnnotateHappensAfter(__FILE__, __LINE__, &keys[fd]);
}
} // namespace signalsync
#else
namespace signalsync {
inline void Released(int) {}
inline void AcquiredReady(int, const fd_set&) {}
} // namespace signalsync
#endif
