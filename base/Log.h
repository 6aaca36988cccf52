#pragma once
#include <cstdarg>

// The library's log sink, for any thread. It writes nothing: call sites keep
// their tags and messages so a build can wire it somewhere, but a shipped
// library stays silent.
void Log(const char* tag, const char* format, ...) __attribute__((format(printf, 2, 3)));

// The same sink, shaped as FFmpeg's log callback (av_log_set_callback).
void LogFromFFmpeg(void* avcl, int level, const char* format, va_list args);

// Installs LogFromFFmpeg as FFmpeg's (process-wide) log callback, once.
void installFFmpegLogSink();
