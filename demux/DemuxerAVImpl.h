#pragma once
// The demuxer built on FFmpeg: owns one AVStreamParse, turns its
// notifications into the two callbacks of DemuxerBase and answers property
// queries from the parser's fields. Each operation runs on the thread that
// DemuxerBase names for it; onParseNotify on the thread that raised the
// notification (the worker during start, the reader afterwards).
#include <memory>

#include "demux/DemuxerBase.h"

class AVStreamParse;

namespace Morvel_Tessalo {

class DemuxerAVImpl : public DemuxerBase {
public:
    DemuxerAVImpl();
    ~DemuxerAVImpl() override;
    DemuxerAVImpl(const DemuxerAVImpl&) = delete;
    DemuxerAVImpl& operator=(const DemuxerAVImpl&) = delete;

    // 1 when the input is open, a video stream was accepted and the reader
    // runs; 0 otherwise, after the event that explains it (if there is one).
    int start() override;
    // Ends the reader (waits for it) and closes the input. Never call it from
    // a callback that runs on the reader thread.
    void stop() override;
    // Ends a pause that a packet callback returning 0 asked for.
    void resume(int ignored) override;
    // Only kDemuxerPropPath: keeps a copy of the path.
    void setProperty(int id, const char* value) override;
    // Ids 0 to 16; the storage must be as wide as the id says.
    void getProperty(int id, void* storage) override;

    // The parser's ParseNotify function; `user` is the demuxer.
    static int onParseNotify(int kind, int detail, void* data, void* user);

private:
    std::unique_ptr<AVStreamParse> parser;  // null until start
    std::unique_ptr<char[]> path;           // null until setProperty gives one
    DemuxerPacket currentPacket{};          // reader thread only
};

}  // namespace Morvel_Tessalo
