#include "base/BaseThread.h"

#include <system_error>

extern "C" void* threadEntry(void* argument) {
    if (argument) static_cast<BaseThread*>(argument)->run();
    return nullptr;
}

bool BaseThread::startThread() {
    try {
        thread = std::thread(threadEntry, this);
    } catch (const std::system_error&) {
        return false;
    }
    return true;
}

void BaseThread::stopAndJoin() {
    stopRequested.store(true);
    if (thread.joinable()) thread.join();
}
