#pragma once
// Turning the library's refusal events into sentences. The event says which
// rule the file broke; libavformat is asked what the file actually holds, so
// the sentence can name the codec, rate or channel count.
#include <cstdint>
#include <string>

namespace tslcli {

// A sentence for the failure event `event` of an index walk on `path`;
// kSilent (the walk ended without any event) included.
std::string refusalCause(int32_t event, const std::string& path);

// A sentence for a cut whose output `output` could not be written (the library
// removed it). `needed`: about the bytes the cut writes.
std::string writeFailure(const std::string& output, uint64_t needed);

// How many video samples the file's own tables (or, without a count there,
// its packets) hold: at least as many as the library can have indexed. -1
// when libavformat cannot open the file.
int64_t videoSampleCount(const std::string& path);

// Quiets FFmpeg's own log for the program's direct uses of it.
void quietFfmpeg();

}  // namespace tslcli
