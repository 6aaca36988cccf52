#include "base/ThreadMutex.h"

ThreadMutex::ThreadMutex() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex, &attr);
    pthread_mutexattr_destroy(&attr);
}

ThreadMutex::~ThreadMutex() { pthread_mutex_destroy(&mutex); }
