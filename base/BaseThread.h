#pragma once
#include <pthread.h>

#include <atomic>

// A thread object with one virtual body. Its owner starts it with
// pthread_create(&thread, nullptr, threadEntry, object) and ends it by setting
// stopRequested, joining `thread` and deleting the object.
class BaseThread {
public:
    BaseThread() = default;
    virtual ~BaseThread() = default;
    virtual void run() {}

    // Starts the thread; false when pthread_create failed.
    bool startThread();
    // Asks the loop to end and joins it; safe to call once after startThread.
    void stopAndJoin();

    pthread_t thread{};
    // Written once by the ending thread and polled by the loop without a lock.
    std::atomic<bool> stopRequested{false};
};

// Start routine for pthread_create: runs `run` on a non-null BaseThread.
extern "C" void* threadEntry(void* argument);
