#include "audio/PriorityMutex.h"

#include <cstdlib>

PriorityMutex::PriorityMutex() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_NORMAL);
    m_inherits = pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_INHERIT) == 0;
    if (pthread_mutex_init(&m_mutex, &attr) != 0) {
        // Some C libraries refuse PI mutexes; a plain mutex still keeps the show running.
        m_inherits = false;
        pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_NONE);
        if (pthread_mutex_init(&m_mutex, &attr) != 0)
            std::abort(); // no mutex at all: nothing sensible can follow
    }
    pthread_mutexattr_destroy(&attr);
}

PriorityMutex::~PriorityMutex() {
    pthread_mutex_destroy(&m_mutex);
}

void PriorityMutex::lock() noexcept {
    pthread_mutex_lock(&m_mutex);
}

void PriorityMutex::unlock() noexcept {
    pthread_mutex_unlock(&m_mutex);
}
