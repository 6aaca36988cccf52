// Picture retrieval: the samples a request needs are read straight from the
// file by their indexed positions, fed to a fresh decoder, and the pictures
// that come out are matched against the asked timestamps.
#include <climits>
#include <cstring>
#include <memory>
#include <new>

#include "base/Log.h"
#include "decode/SoftMediaDecoderImpl.h"
#include "instance/TessaloImpl.h"
#include "platform/PlatformFile.h"
#include "platform/Utf8.h"

namespace Morvel_Tessalo {

namespace {

// The largest single move; one below the 32-bit maximum.
constexpr int64_t kMoveStep = 0x7FFFFFFE;
constexpr int32_t kDecoderThreads = 4;

struct FileCloser {
    PlatformFile file;
    ~FileCloser() { closeFile(file); }
};

// Moves to an absolute position in steps that fit a signed 32-bit distance:
// the first from the start of the file, the rest from where it stands.
bool moveTo(PlatformFile file, int64_t position) {
    MoveFrom from = MoveFrom::Begin;
    for (int64_t remaining = position; remaining > 0; remaining -= kMoveStep) {
        int32_t step = static_cast<int32_t>(remaining < kMoveStep ? remaining : kMoveStep);
        if (!moveFilePointer(file, step, from)) return false;
        from = MoveFrom::Current;
    }
    return true;
}

// The stretch of the file held in memory during one request.
struct ReadWindow {
    PlatformFile file;
    uint8_t* buffer = nullptr;  // kReadBufferSize bytes
    int32_t bufferBytes = 0;
    int64_t bufferEnd = 0;  // file position just past the last byte held
    int32_t sampleOffset = 0;

    // Makes the sample at `position` of `size` bytes addressable at
    // buffer + sampleOffset. False ends the request's walk through the samples.
    bool bring(int64_t position, int32_t size) {
        // A position of -1 (none known), a negative size or a sample longer
        // than the whole buffer cannot be held: the walk ends there rather
        // than feed bytes that are not the sample's.
        if (position < 0 || size < 0 || size > kReadBufferSize) return false;
        int32_t tail = 0;
        const int64_t bufferStart = bufferEnd - bufferBytes;
        if (position > bufferEnd) {
            const int64_t gap = position - bufferEnd;
            if (gap <= INT32_MAX) {
                if (!moveFilePointer(file, static_cast<int32_t>(gap), MoveFrom::Current)) return false;
            } else if (!moveTo(file, position)) {
                // A gap past one 32-bit move: position absolutely, in steps.
                return false;
            }
        } else if (position < bufferStart) {
            // Samples lie at ascending positions; one that does not is read
            // again from its own place instead of from before the buffer.
            if (!moveTo(file, position)) return false;
        } else if (position + size > bufferEnd) {
            tail = static_cast<int32_t>(bufferEnd - position);
            std::memmove(buffer, buffer + (bufferBytes - tail), static_cast<size_t>(tail));
        } else {
            sampleOffset = static_cast<int32_t>(position - bufferStart);
            return true;
        }
        sampleOffset = 0;
        uint32_t got = 0;
        if (!readFile(file, buffer + tail, static_cast<uint32_t>(kReadBufferSize - tail), &got) || got == 0)
            return false;
        bufferBytes = tail + static_cast<int32_t>(got);
        bufferEnd = position + bufferBytes;
        // The file ended inside the sample.
        return size <= bufferBytes;
    }
};

}  // namespace

bool TessaloImpl::openDecoder(int32_t size, uint8_t* data) {
    if (decoder) {
        decoder->close();
        delete decoder;
        decoder = nullptr;
    }
    decoder = new (std::nothrow) SoftMediaDecoderImpl(kMediaKindVideo);
    if (!decoder) return false;
    decoder->setParameter(kDecoderParamExtraSize, &size);
    decoder->setParameter(kDecoderParamExtraData, data);
    int32_t threads = kDecoderThreads;
    decoder->setParameter(kDecoderParamThreads, &threads);
    return decoder->open() != 0;
}

void TessaloImpl::locateStart() {
    keysOnly = false;
    allDelivered = false;
    firstDelivered = false;
    startGroup = 0;
    const size_t groups = keyGroups.size();
    if (askedPts.size() == 1) {
        keysOnly = true;
        allDelivered = true;
        while (startGroup < groups && keyGroups[startGroup]->front()->pts != askedPts[0]) ++startGroup;
        return;
    }
    if (askedPts.size() < 2) return;
    bool matched = false;
    for (size_t g = 0; g < groups; ++g) {
        if (keyGroups[g]->front()->pts == askedPts[0]) {
            matched = true;
            break;
        }
        if (startGroup + 1 < groups) ++startGroup;
    }
    if (matched && startGroup + 1 < groups) {
        if (keyGroups[startGroup + 1]->front()->pts == askedPts[1]) keysOnly = true;
        else allDelivered = true;
    }
}

bool TessaloImpl::fetchPictures() {
    if (!path) {
        notifyHost(kHostEventFileError);
        return false;
    }
    if (!openDecoder(extraDataSize, extraData.get())) {
        Log("TessaloImpl", "decoder could not be opened");
        notifyHost(kHostEventError);
        return false;
    }
    setState(kStateFetching);
    if (startGroup >= keyGroups.size()) {
        notifyHost(kHostEventError);
        return false;
    }
    FileCloser closer{openFileRead(utf8ToWide(path.get()))};
    if (!closer.file.isOpen()) {
        notifyHost(kHostEventFileError);
        return false;
    }
    // Not value-initialised: 20 MiB of zeroes per request would be wasted.
    std::unique_ptr<uint8_t[]> readBuffer(new (std::nothrow) uint8_t[kReadBufferSize]);
    if (!readBuffer) {
        notifyHost(kHostEventError);
        return false;
    }
    ReadWindow window;
    window.file = closer.file;
    window.buffer = readBuffer.get();

    FrameGroup* group = keyGroups[startGroup];
    size_t sampleIndex = 0;
    const FrameRecord* sample = group->front();
    // A position of -1 means the demuxer knew none: the bytes at the start of
    // the file would not be this sample, so the request fails as a read would.
    if (sample->position < 0 || !moveTo(window.file, sample->position)) {
        notifyHost(kHostEventFileError);
        return false;
    }
    uint32_t got = 0;
    if (!readFile(window.file, window.buffer, kReadBufferSize, &got) || got == 0) {
        notifyHost(kHostEventFileError);
        return false;
    }
    window.bufferBytes = static_cast<int32_t>(got);
    window.bufferEnd = sample->position + window.bufferBytes;
    window.sampleOffset = 0;

    const size_t asked = askedPts.size();
    while (!isStopped()) {
        // Samples under 4 bytes carry no picture. A sample that the buffer
        // does not hold whole (the file ended inside it) is not fed either.
        if (sample->size >= 4 && int64_t(window.sampleOffset) + sample->size <= window.bufferBytes) {
            decoder->inputData(window.buffer + window.sampleOffset, sample->size, sample->pts, sample->dts);
            receivePicture();
        }

        // The next sample.
        const FrameRecord* next = nullptr;
        if (keysOnly) {
            if (static_cast<size_t>(keyDelivered) == asked) break;
            if (startGroup + 1 < keyGroups.size()) {
                group = keyGroups[++startGroup];
                if (sampleIndex < group->size()) next = (*group)[sampleIndex];
            } else if (allDelivered && firstDelivered) {
                setState(kStateStopped);
            } else if (++sampleIndex == group->size()) {
                // The last group's other samples push out what the decoder holds.
                setState(kStateStopped);
            } else {
                next = (*group)[sampleIndex];
            }
        } else {
            if (static_cast<size_t>(runDelivered) == asked) break;
            if (++sampleIndex < group->size()) {
                next = (*group)[sampleIndex];
            } else if (++startGroup < keyGroups.size()) {
                group = keyGroups[startGroup];
                sampleIndex = 0;
                next = group->front();
            }
        }
        if (!next) break;
        if (!window.bring(next->position, next->size)) break;
        sample = next;
    }
    return true;
}

void TessaloImpl::receivePicture() {
    const int32_t r = decoder->outputData(&picture);
    if (r == 2) {
        // Nothing new came: picture still holds the last picture's pts.
        currentPts = picture.pts;
        notifyHost(kHostEventDecodeError);
        return;
    }
    if (r != 1) return;
    currentPts = picture.pts;
    currentKey = picture.keyFrame;
    const size_t asked = askedPts.size();
    if (asked == 0) return;  // nothing was asked, so nothing is delivered

    auto deliver = [this] {
        convertPicture(picture.data, static_cast<int32_t>(picture.size), picture.width, picture.height,
                       &outputPicture, &outputPictureSize, outputFormat);
        notifyHost(kHostEventPicReady);
    };
    // No further picture is wanted: stop the decoder and the walk.
    auto finish = [this] {
        decoder->setParameter(kDecoderParamFlush, nullptr);
        setState(kStateStopped);
    };

    if (keysOnly) {
        if (!firstDelivered) {
            // The first picture out of a fresh decoder answers the first
            // asked timestamp, whatever its own.
            firstDelivered = true;
            keyDelivered = 1;
            currentPts = askedPts[0];
            currentKey = true;
            deliver();
            if (allDelivered) {
                finish();
                return;
            }
        }
        if (static_cast<size_t>(keyDelivered) < asked && picture.pts == askedPts[keyDelivered]) {
            ++keyDelivered;
            deliver();
        }
        if (static_cast<size_t>(keyDelivered) == asked) allDelivered = true;
        if (allDelivered) finish();
        return;
    }

    if (!firstDelivered) {
        firstDelivered = true;
        currentPts = askedPts[0];
        currentKey = true;
        deliver();
        runDelivered = 1;
    } else if (static_cast<size_t>(runDelivered) < asked) {
        currentPts = askedPts[runDelivered];
        ++runDelivered;
        deliver();
    }
    if (picture.pts == askedPts.back() || static_cast<size_t>(runDelivered) == asked) finish();
}

}  // namespace Morvel_Tessalo
