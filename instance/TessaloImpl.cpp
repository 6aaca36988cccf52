#include "instance/TessaloImpl.h"

#include <cstring>
#include <new>
#include <system_error>

#include "base/ByteCopy.h"
#include "base/Log.h"
#include "decode/DecoderBase.h"
#include "demux/DemuxerAVImpl.h"
#include "edit/FileEditer.h"

namespace Morvel_Tessalo {

namespace {

// The instance whose callback this thread is inside, if any.
thread_local const TessaloImpl* notifying = nullptr;

}  // namespace

TessaloImpl::TessaloImpl(void* user, TessaloCallback callback) : userData(user), hostCallback(callback) {
    // Without memory for the cut engine the instance still indexes and
    // delivers pictures; the cut exports then answer as for a null handle.
    editor.reset(new (std::nothrow) FileEditer(&TessaloImpl::onEditerNotify, this));
}

TessaloImpl::~TessaloImpl() {
    setState(kStateStopped);
    stopWorker();
    demuxer.reset();
    decoder.reset();
    if (editor) {
        editor->stopCut();
        editor->releaseCut();
    }
    path.reset();
    outputPicture.reset();
    clearIndex();
    extraData.reset();
    annexBExtraData.reset();
    askedPts.clear();
    editor.reset();
}

void TessaloImpl::notifyHost(int32_t event) {
    if (!hostCallback) return;
    const TessaloImpl* outer = notifying;
    notifying = this;
    hostCallback(userData, event);
    notifying = outer;
}

bool TessaloImpl::insideCallback() const { return notifying == this; }

bool TessaloImpl::startPic(const char* newPath) {
    if (insideCallback()) return false;
    stopWorker();
    // A running cut reads the index that is about to go.
    if (editor) {
        editor->stopCut();
        editor->releaseCut();
    }
    clearIndex();
    failureCode = 0;
    path.reset();
    if (!newPath) return false;
    const size_t length = std::strlen(newPath) + 1;
    path.reset(new (std::nothrow) char[length]);
    if (!path) return false;
    std::memcpy(path.get(), newPath, length);
    fetchMode = false;
    return startWorker();
}

bool TessaloImpl::getPicByPts(const int64_t* pts, int32_t count) {
    if (insideCallback()) return false;
    stopWorker();
    askedPts.clear();
    if (!pts || count < 1) return false;
    try {
        askedPts.assign(pts, pts + count);
    } catch (const std::bad_alloc&) {
        return false;
    }
    nextAsked = 0;
    // locateStart sets it again; clearing it here keeps a request that is
    // given up before locateStart from inheriting the former request's mark,
    // so it still ends with kHostEventNoPic.
    firstDelivered = false;
    fetchMode = true;
    return startWorker();
}

bool TessaloImpl::startWorker() {
    // Every request is marked running here, on the host's thread, before its
    // worker exists, and nothing on the worker writes running again: an end
    // of file, or a stop that comes while the worker is starting, can never
    // be overwritten. The request's picture format is taken at the same
    // moment: a format set later waits for the next request.
    {
        std::lock_guard<std::mutex> lock(stateMutex);
        state = kStateRunning;
        pictureFormat = outputFormat;
    }
    try {
        worker.reset(new std::thread(&TessaloImpl::workerMain, this));
    } catch (const std::bad_alloc&) {
        worker.reset();
    } catch (const std::system_error&) {
        worker.reset();
    }
    if (!worker) {
        setState(kStateStopped);
        return false;
    }
    return true;
}

void TessaloImpl::stopWorker() {
    if (!worker) return;
    if (worker->joinable()) {
        setState(kStateStopped);
        wakeWorker();
        worker->join();
    }
    worker.reset();
}

void TessaloImpl::workerMain() {
    try {
        runWorker();
    } catch (const std::bad_alloc&) {
        // No memory on this thread: the job fails as one that could not be
        // set up, and the instance stays usable.
        setState(kStateStopped);
        releaseWorkerObjects();
        notifyHost(kHostEventError);
    }
}

void TessaloImpl::releaseWorkerObjects() {
    if (demuxer) {
        demuxer->stop();
        demuxer->getProperty(kDemuxerPropIndexOrigins, &indexOrigins);  // the reader has ended
        demuxer.reset();
    }
    if (decoder) {
        decoder->close();
        decoder.reset();
    }
}

void TessaloImpl::runWorker() {
    bool fetched = true;
    if (!fetchMode) {
        if (!openDemuxer()) {
            // A failed open leaves the state as it was before the request.
            setState(kStateStopped);
            return;
        }
        waitForIndex();
    }
    // The walk arrives here stopped; a fetch runs once and stops itself.
    if (!isStopped() && fetchMode) {
        notifyHost(kHostEventPicStart);
        locateStart();
        fetched = fetchPictures();
        setState(kStateStopped);
    }
    releaseWorkerObjects();

    if (fetchMode) {
        if (fetched) {
            if (!firstDelivered) notifyHost(kHostEventNoPic);
            notifyHost(kHostEventPicDone);
        }
        return;
    }
    if (keyGroups.empty()) return;
    if (editor) {
        editor->setFrameIndex(&keyGroups, &audioFrames, &videoTrackInfo, &audioTrackInfo);
        editor->setIndexOrigins(indexOrigins);
        editor->setDisplayRotation(mediaInfo.rotation);
    }
    videoTrackInfo = VideoTrackInfo{};
    audioTrackInfo = AudioTrackInfo{};
    notifyHost(kHostEventIndexReady);
}

bool TessaloImpl::openDemuxer() {
    if (demuxer) {
        demuxer->stop();
        demuxer.reset();
    }
    demuxer.reset(new (std::nothrow) DemuxerAVImpl());
    if (!demuxer) {
        notifyHost(kHostEventError);
        return false;
    }
    demuxer->init(&TessaloImpl::onDemuxerPacket, &TessaloImpl::onDemuxerEvent, this);
    demuxer->setProperty(kDemuxerPropPath, path.get());
    return demuxer->start() != 0;
}

void TessaloImpl::readMediaInfo() {
    if (!demuxer) return;
    demuxer->getProperty(kDemuxerPropAudioBitRate, &mediaInfo.audioBitRate);
    demuxer->getProperty(kDemuxerPropSampleRate, &mediaInfo.sampleRate);
    demuxer->getProperty(kDemuxerPropChannels, &mediaInfo.channels);  // writes the low 16 bits

    int32_t audioCodec = kDemuxerCodecAac;
    demuxer->getProperty(kDemuxerPropAudioCodec, &audioCodec);
    if (audioCodec == kDemuxerCodecAac) mediaInfo.audioCodec = kDemuxerCodecAac;

    demuxer->getProperty(kDemuxerPropDuration, &mediaInfo.durationMs);
    demuxer->getProperty(kDemuxerPropVideoBitRate, &mediaInfo.videoBitRate);
    demuxer->getProperty(kDemuxerPropHeight, &mediaInfo.height);
    demuxer->getProperty(kDemuxerPropWidth, &mediaInfo.width);
    demuxer->getProperty(kDemuxerPropFrameRate, &mediaInfo.frameRate);
    demuxer->getProperty(kDemuxerPropRotation, &mediaInfo.rotation);

    int32_t videoCodec = kDemuxerCodecH264;
    demuxer->getProperty(kDemuxerPropVideoCodec, &videoCodec);
    if (videoCodec == kDemuxerCodecH264) mediaInfo.videoCodec = kDemuxerCodecH264;

    uint8_t* bytes = nullptr;
    demuxer->getProperty(kDemuxerPropExtraDataSize, &extraDataSize);
    demuxer->getProperty(kDemuxerPropExtraData, &bytes);
    extraData = copyBytes(bytes, extraDataSize, &extraDataSize);

    bytes = nullptr;
    demuxer->getProperty(kDemuxerPropAnnexBExtraDataSize, &annexBExtraDataSize);
    demuxer->getProperty(kDemuxerPropAnnexBExtraData, &bytes);
    annexBExtraData = copyBytes(bytes, annexBExtraDataSize, &annexBExtraDataSize);

    videoTrackInfo.width = mediaInfo.width;
    videoTrackInfo.height = mediaInfo.height;
    videoTrackInfo.frameRate = mediaInfo.frameRate;
    videoTrackInfo.codecType = 1;
    videoTrackInfo.extraData = annexBExtraData.get();
    videoTrackInfo.extraDataSize = annexBExtraDataSize;

    audioTrackInfo.sampleRate = mediaInfo.sampleRate;
    audioTrackInfo.channels = mediaInfo.channels;
    audioTrackInfo.sampleBits = 16;
    audioTrackInfo.codecType = 1;
    audioTrackInfo.extraData = nullptr;
    audioTrackInfo.extraDataSize = 0;
}

void TessaloImpl::setState(int32_t value) {
    std::lock_guard<std::mutex> lock(stateMutex);
    state = value;
}

bool TessaloImpl::isStopped() {
    std::lock_guard<std::mutex> lock(stateMutex);
    return state == kStateStopped;
}

bool TessaloImpl::enterFetching() {
    std::lock_guard<std::mutex> lock(stateMutex);
    if (state != kStateRunning) return false;
    state = kStateFetching;
    return true;
}

void TessaloImpl::waitForIndex() {
    // The state is tested under wakeMutex before each sleep, and every
    // writer of kStateStopped signals afterwards under that mutex, so an end
    // reported before the wait begins still ends it.
    std::unique_lock<std::mutex> lock(wakeMutex);
    wakeCondition.wait(lock, [this] { return isStopped(); });
}

void TessaloImpl::wakeWorker() {
    std::lock_guard<std::mutex> lock(wakeMutex);
    wakeCondition.notify_all();
}

int TessaloImpl::onDemuxerPacket(int kind, DemuxerPacket* packet, void* user) {
    auto* self = static_cast<TessaloImpl*>(user);
    if (!self || !packet) return 1;
    bool added = true;
    if (kind == kDemuxerPacketVideo) {
        added = self->addVideoFrame(packet->pts, packet->dts, packet->key, packet->pos, packet->size);
    } else if (kind == kDemuxerPacketAudio) {
        added = self->addAudioFrame(packet->pts, packet->dts, packet->key, packet->pos, packet->size);
    }
    if (added) return 1;
    // The index cannot grow: the walk fails as after repeated read failures,
    // and the reader pauses until the walk is stopped.
    self->notifyHost(kHostEventError);
    return 0;
}

void TessaloImpl::onDemuxerEvent(int kind, int detail, void*, void* user) {
    auto* self = static_cast<TessaloImpl*>(user);
    if (!self) return;
    if (kind == kDemuxerEventError || kind == kDemuxerEventOpenFailed) self->keepFailureCode(kind, detail);
    switch (kind) {
    case kDemuxerEventError:
        switch (detail) {
        case kDemuxerErrorUnassigned: self->notifyHost(kHostEventUnassigned); break;
        case kDemuxerErrorNoVideo: self->notifyHost(kHostEventNoVideo); break;
        case kDemuxerErrorCodec: self->notifyHost(kHostEventBadCodec); break;
        case kDemuxerErrorSampleRate: self->notifyHost(kHostEventBadSampleRate); break;
        case kDemuxerErrorChannels: self->notifyHost(kHostEventBadChannels); break;
        default: self->notifyHost(kHostEventError); break;
        }
        break;
    case kDemuxerEventOpenFailed:
        self->notifyHost(kHostEventFileError);
        break;
    case kDemuxerEventReady:
        if (!self->fetchMode) {
            self->readMediaInfo();
            self->notifyHost(kHostEventMediaInfo);
        }
        break;
    case kDemuxerEventEnded:
        if (detail == kDemuxerMediaVideo && !self->fetchMode) {
            self->sortIndex();
            self->setState(kStateStopped);
            self->wakeWorker();
        }
        break;
    default:
        break;
    }
}

void TessaloImpl::keepFailureCode(int kind, int detail) {
    failureCode = 0;
    if (demuxer) demuxer->getProperty(kDemuxerPropFailureCode, &failureCode);
    Log("TessaloImpl", "walk failed: demuxer event %d, detail %d, FFmpeg error %d", kind, detail, failureCode);
}

void TessaloImpl::onEditerNotify(void* context, int32_t code) {
    auto* self = static_cast<TessaloImpl*>(context);
    if (!self) return;
    if (code == kNotifyFailed) {
        self->notifyHost(kHostEventCutFailed);
    } else if (code == kNotifyDone) {
        self->notifyHost(kHostEventCutDone);
    }
}

}  // namespace Morvel_Tessalo
