#include "base/Log.h"

#include <mutex>

extern "C" {
#include <libavutil/log.h>
}

void Log(const char*, const char*, ...) {}

void LogFromFFmpeg(void*, int, const char*, va_list) {}

void installFFmpegLogSink() {
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_callback(LogFromFFmpeg); });
}
