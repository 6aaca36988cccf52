#pragma once
#include <pthread.h>

// Holds one recursive pthread mutex for its owner's life.
class ThreadMutex {
public:
    ThreadMutex();
    virtual ~ThreadMutex();
    ThreadMutex(const ThreadMutex&) = delete;
    ThreadMutex& operator=(const ThreadMutex&) = delete;

    pthread_mutex_t mutex;
};
