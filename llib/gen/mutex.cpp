#include "llib/gen/mutex.h"

#include <cerrno>
#include <ctime>

LLockObject::LLockObject() {
    // Start from glibc's static recursive initialiser, so the lock is recursive and usable even
    // when no mutex attribute can be made.
    mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
    pthread_mutexattr_t attributes;
    if (pthread_mutexattr_init(&attributes) != 0)
        return;
    if (pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE) == 0)
        pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

LLockObject::~LLockObject() {
    pthread_mutex_destroy(&mutex);
}

void LLockObject::Lock() {
    pthread_mutex_lock(&mutex);
}

void LLockObject::Unlock() {
    pthread_mutex_unlock(&mutex);
}

void Sleep(unsigned int ms) {
    timespec wanted{};
    wanted.tv_sec = ms / 1000;
    wanted.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
    timespec remaining{};
    while (nanosleep(&wanted, &remaining) != 0 && errno == EINTR)
        wanted = remaining;
}
