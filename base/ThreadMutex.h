#pragma once
#include <pthread.h>

// Holds one recursive pthread mutex for its owner's life. Made and destroyed
// with its owner, on the owner's thread; locked from any thread.
class ThreadMutex {
public:
    ThreadMutex();
    virtual ~ThreadMutex();
    ThreadMutex(const ThreadMutex&) = delete;
    ThreadMutex& operator=(const ThreadMutex&) = delete;

    pthread_mutex_t mutex;
};
