#pragma once
#include <atomic>
#include <thread>

// A thread object with one virtual body. Its owner starts it with startThread
// (which runs threadEntry(object) on a new thread) and ends it with
// stopAndJoin before deleting the object.
class BaseThread {
public:
    BaseThread() = default;
    virtual ~BaseThread() = default;
    BaseThread(const BaseThread&) = delete;
    BaseThread& operator=(const BaseThread&) = delete;
    // The body, on the new thread.
    virtual void run() {}

    // Owner's thread: starts the thread; false when the system gave none.
    bool startThread();
    // Owner's thread: asks the loop to end and joins it; does nothing when
    // no thread was started or it has been joined already.
    void stopAndJoin();

    std::thread thread;
    // Written once by the ending thread and polled by the loop without a lock.
    std::atomic<bool> stopRequested{false};
};

// The start routine: runs `run` on a non-null BaseThread; returns null.
extern "C" void* threadEntry(void* argument);
