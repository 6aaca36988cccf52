#include "demux/DemuxerAVImpl.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <new>

#include "demux/AVStreamParse.h"
#include "instance/FrameRecord.h"

namespace Morvel_Tessalo {

namespace {

void putInt(void* storage, int32_t value) { std::memcpy(storage, &value, sizeof value); }

void putPointer(void* storage, uint8_t* bytes) { std::memcpy(storage, &bytes, sizeof bytes); }

// A rate outside the int32 range (a broken r_frame_rate) saturates.
int32_t wholeFrameRate(double frameRate) {
    const double rate = std::trunc(frameRate);
    if (!(rate < static_cast<double>(std::numeric_limits<int32_t>::max()))) return std::numeric_limits<int32_t>::max();
    if (rate < static_cast<double>(std::numeric_limits<int32_t>::min())) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(rate);
}

// The file's and the video's properties; false for an id that is not one.
bool putVideoProperty(const AVStreamParse& p, int id, void* storage) {
    switch (id) {
    case kDemuxerPropDuration: std::memcpy(storage, &p.duration, sizeof p.duration); break;
    case kDemuxerPropWidth: putInt(storage, p.width); break;
    case kDemuxerPropHeight: putInt(storage, p.height); break;
    case kDemuxerPropFrameRate: putInt(storage, wholeFrameRate(p.frameRate)); break;
    case kDemuxerPropVideoBitRate: putInt(storage, p.videoBitRate); break;
    case kDemuxerPropHasVideo: *static_cast<uint8_t*>(storage) = p.hasVideo ? 1 : 0; break;
    case kDemuxerPropVideoCodec:
        if (p.videoCodecId == AV_CODEC_ID_H264) putInt(storage, kDemuxerCodecH264);
        break;
    case kDemuxerPropExtraData: putPointer(storage, p.extraData.get()); break;
    case kDemuxerPropExtraDataSize: putInt(storage, p.extraDataSize); break;
    case kDemuxerPropAnnexBExtraData: putPointer(storage, p.annexBExtraData.get()); break;
    case kDemuxerPropAnnexBExtraDataSize: putInt(storage, p.annexBExtraDataSize); break;
    case kDemuxerPropRotation: putInt(storage, p.rotation); break;
    case kDemuxerPropIndexOrigins: {
        const IndexOrigins origins{p.videoPtsOrigin, p.videoDtsOrigin, p.audioPtsOrigin};
        std::memcpy(storage, &origins, sizeof origins);
        break;
    }
    default: return false;
    }
    return true;
}

// The audio's properties; any other id writes nothing.
void putAudioProperty(const AVStreamParse& p, int id, void* storage) {
    switch (id) {
    case kDemuxerPropHasAudio: *static_cast<uint8_t*>(storage) = p.hasAudio ? 1 : 0; break;
    case kDemuxerPropAudioCodec:
        if (p.audioCodecId == AV_CODEC_ID_AAC) putInt(storage, kDemuxerCodecAac);
        break;
    case kDemuxerPropChannels: {
        // Without an audio stream there is no table entry to read: the count
        // is then 0 and the audio channel field (0 as well) stands in.
        uint16_t count = p.firstAudio >= 0 ? p.channels[p.firstAudio] : 0;
        if (count == 0) count = static_cast<uint16_t>(p.audioChannels & 0xFFFF);
        std::memcpy(storage, &count, sizeof count);
        break;
    }
    case kDemuxerPropSampleRate: putInt(storage, p.firstAudio >= 0 ? p.sampleRates[p.firstAudio] : -1); break;
    case kDemuxerPropAudioBitRate: putInt(storage, p.audioBitRate); break;
    default: break;
    }
}

}  // namespace

DemuxerAVImpl::DemuxerAVImpl() = default;

DemuxerAVImpl::~DemuxerAVImpl() {
    parser.reset();  // runs the parser's stop if it is still due
    path.reset();
}

int DemuxerAVImpl::start() {
    // A second start gives up the first parser; the lifecycle never does it,
    // but it must not leave a reader running on a parser nobody owns.
    if (parser) parser->stop();
    parser.reset();
    try {
        parser.reset(new (std::nothrow) AVStreamParse());
    } catch (...) {
        parser.reset();
    }
    if (!parser || parser->init(&DemuxerAVImpl::onParseNotify, this) != 0) {
        notifyEvent(kDemuxerEventError, kDemuxerErrorGeneral, nullptr);
        return 0;
    }
    if (parser->open(path.get()) != 0) {
        notifyEvent(kDemuxerEventOpenFailed, 0, nullptr);
        return 0;
    }
    return parser->scanStreams() == 0 ? 1 : 0;
}

void DemuxerAVImpl::stop() {
    // Before any start there is nothing to end.
    if (parser) parser->stop();
}

void DemuxerAVImpl::resume(int) {
    if (!parser) return;
    std::lock_guard<std::mutex> lock(parser->mutex);
    // A resume racing a stop must not undo it: the reader would go on to the
    // end of the file before stop could join it.
    if (parser->state != kParseStateStopping) parser->state = kParseStateRunning;
    parser->condition.notify_all();
}

void DemuxerAVImpl::setProperty(int id, const char* value) {
    if (id != kDemuxerPropPath) return;
    path.reset();
    if (!value) return;
    size_t length = std::strlen(value) + 1;
    path.reset(new (std::nothrow) char[length]);
    if (path) std::memcpy(path.get(), value, length);
}

void DemuxerAVImpl::getProperty(int id, void* storage) {
    // Before start there are no values to give: nothing is written.
    if (!parser || !storage) return;
    if (id == kDemuxerPropFailureCode) putInt(storage, parser->failureCode);
    else if (!putVideoProperty(*parser, id, storage)) putAudioProperty(*parser, id, storage);
}

int DemuxerAVImpl::onParseNotify(int kind, int detail, void* data, void* user) {
    auto* self = static_cast<DemuxerAVImpl*>(user);
    if (!self) return 0;
    switch (kind) {
    case kParseOpened:
        self->notifyEvent(kDemuxerEventReady, 0, nullptr);
        return 0;
    case kParseEnded:
        if (detail == kDemuxerMediaAudio || detail == kDemuxerMediaVideo)
            self->notifyEvent(kDemuxerEventEnded, detail, nullptr);
        return 0;
    case kParsePacket: {
        const auto* parsed = static_cast<const ParsedPacket*>(data);
        if (!parsed) return 0;
        DemuxerPacket& packet = self->currentPacket;
        packet.data = parsed->data;
        packet.size = parsed->size;
        packet.pts = parsed->pts;
        packet.dts = parsed->dts;
        packet.duration = parsed->duration;
        packet.pos = parsed->pos;
        packet.key = parsed->flags != 0;
        int kindOut = detail == 2 ? kDemuxerPacketVideo : kDemuxerPacketAudio;
        // A callback answer of 0 is the order to pause.
        return self->notifyPacket(kindOut, &packet) == 0 ? 1 : 0;
    }
    case kParseError:
        self->notifyEvent(kDemuxerEventError, (detail >= 1 && detail <= 5) ? detail : kDemuxerErrorGeneral,
                          nullptr);
        return 0;
    default:
        return 0;
    }
}

}  // namespace Morvel_Tessalo
