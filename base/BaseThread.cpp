#include "base/BaseThread.h"

extern "C" void* threadEntry(void* argument) {
    if (argument) static_cast<BaseThread*>(argument)->run();
    return nullptr;
}

bool BaseThread::startThread() {
    return pthread_create(&thread, nullptr, threadEntry, this) == 0;
}

void BaseThread::stopAndJoin() {
    stopRequested.store(true);
    pthread_join(thread, nullptr);
}
