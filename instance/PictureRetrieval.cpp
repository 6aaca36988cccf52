// Picture retrieval: the samples a request needs are read straight from the
// file by their indexed positions, fed to a fresh decoder, and each picture
// that comes out answers the asked timestamp that is its own.
#include <memory>
#include <new>
#include <unordered_map>

#include "base/Log.h"
#include "decode/H264Sample.h"
#include "decode/SoftMediaDecoderImpl.h"
#include "instance/FetchPlan.h"
#include "platform/ReadWindow.h"
#include "instance/TessaloImpl.h"
#include "platform/Utf8.h"

namespace Morvel_Tessalo {

namespace {

constexpr int32_t kDecoderThreads = 4;
// A drained decoder gives out what its frame threads and reordering hold, a
// few dozen pictures at most; the bound keeps a decoder that keeps failing
// from holding the request.
constexpr int kDrainLimit = 256;

}  // namespace

bool TessaloImpl::openDecoder(int32_t size, uint8_t* data) {
    if (decoder) {
        decoder->close();
        decoder.reset();
    }
    decoder.reset(new (std::nothrow) SoftMediaDecoderImpl(kMediaKindVideo));
    if (!decoder) return false;
    decoder->setParameter(kDecoderParamExtraSize, &size);
    decoder->setParameter(kDecoderParamExtraData, data);
    int32_t threads = kDecoderThreads;
    decoder->setParameter(kDecoderParamThreads, &threads);
    return decoder->open() != 0;
}

// A group is named by its key sample's own timestamp, or by the lowest
// timestamp of the group, which TSL_GetKeyPts reports; the two differ where
// pictures shown before the key picture follow it in the stream (open GOP).
static bool namesGroup(const std::vector<FrameGroup*>& keyGroups, const std::vector<FrameGroup*>& sorted,
                       size_t g, int64_t pts) {
    return keyGroups[g]->front()->pts == pts || (g < sorted.size() && sorted[g]->front()->pts == pts);
}

void TessaloImpl::locateStart() {
    keysOnly = false;
    firstDelivered = false;
    nextAsked = 0;
    startGroup = 0;
    const size_t groups = keyGroups.size();
    if (askedPts.size() == 1) {
        keysOnly = true;
        while (startGroup < groups && !namesGroup(keyGroups, sortedKeyGroups, startGroup, askedPts[0])) ++startGroup;
        return;
    }
    if (askedPts.size() < 2) return;
    bool matched = false;
    for (size_t g = 0; g < groups; ++g) {
        if (namesGroup(keyGroups, sortedKeyGroups, g, askedPts[0])) {
            matched = true;
            break;
        }
        if (startGroup + 1 < groups) ++startGroup;
    }
    if (matched && startGroup + 1 < groups && namesGroup(keyGroups, sortedKeyGroups, startGroup + 1, askedPts[1]))
        keysOnly = true;
}

// Key mode: an asked key picture that is an IDR picture needs its key sample
// alone. Any other (a picture shown before its group's key picture, or a key
// sample that is a recovery point) is decoded from the key of the group
// before, through its own group: the previous group's references, or the
// previous wave of intra refresh, make it whole.
void TessaloImpl::planKeys(FetchPlan* plan, KeyProbe* probe) {
    std::unordered_map<int64_t, size_t> groupOf;
    for (size_t g = 0; g < keyGroups.size(); ++g) groupOf.emplace(keyGroups[g]->front()->pts, g);
    for (size_t g = 0; g < keyGroups.size() && g < sortedKeyGroups.size(); ++g)
        groupOf.emplace(sortedKeyGroups[g]->front()->pts, g);
    for (int64_t pts : askedPts) {
        if (isStopped()) return;  // the plan of a long list must not hold a stop up
        const auto found = groupOf.find(pts);
        if (found == groupOf.end()) continue;  // answered as missing when the pictures pass it
        const size_t g = found->second;
        const FrameRecord& key = *keyGroups[g]->front();
        if (key.pts == pts && plan->feed(g) != FetchPlan::kWhole && probe->startsWithIdr(key)) {
            plan->setFeed(g, FetchPlan::kKeyOnly);
            plan->markIdr(g);
            continue;
        }
        plan->setFeed(g, FetchPlan::kWhole);
        if (g > 0) plan->setFeed(g - 1, FetchPlan::kWhole);
    }
}

// Run mode: every sample from the start group on; from the group before when
// the start group's key is no IDR picture, for the same reason as above.
void TessaloImpl::planRun(FetchPlan* plan, KeyProbe* probe) {
    for (size_t g = startGroup; g < keyGroups.size(); ++g) plan->setFeed(g, FetchPlan::kWhole);
    if (probe->startsWithIdr(*keyGroups[startGroup]->front())) plan->markIdr(startGroup);
    else if (startGroup > 0) plan->setFeed(startGroup - 1, FetchPlan::kWhole);
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
    if (!enterFetching()) return true;  // given up before the first sample
    if (startGroup >= keyGroups.size()) {
        notifyHost(kHostEventError);
        return false;
    }
    FileCloser closer{openFileRead(utf8ToWide(path.get()))};
    if (!closer.file.isOpen()) {
        notifyHost(kHostEventFileError);
        return false;
    }
    FetchPlan plan(keyGroups);
    {
        KeyProbe probe(path.get(), nalLengthSize(extraData.get(), extraDataSize));
        if (keysOnly) planKeys(&plan, &probe);
        else planRun(&plan, &probe);
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
    return feedPlan(&plan, &window);
}

// Every sample of the plan through the decoder, then what the decoder still
// holds; asked pictures that never came are reported missing at the end.
bool TessaloImpl::feedPlan(FetchPlan* plan, ReadWindow* window) {
    // A plan that a stop cut short may hold no sample: the request was given
    // up, not failed by its file.
    if (isStopped()) return true;
    bool restart = false;
    const FrameRecord* sample = plan->next(&restart);
    // A position of -1 means the demuxer knew none: the bytes at the start of
    // the file would not be this sample, so the request fails as a read would.
    if (!sample || !window->fill(sample->position, sample->size)) {
        notifyHost(kHostEventFileError);
        return false;
    }
    while (!isStopped()) {
        if (restart) restartDecoder();
        // Samples under 4 bytes carry no picture. A sample that the buffer
        // does not hold whole (the file ended inside it) is not fed either.
        if (sample->size >= 4 && window->holds(sample->size)) {
            decoder->inputData(window->buffer + window->sampleOffset, sample->size, sample->pts, sample->dts);
            receivePicture();
        }
        sample = plan->next(&restart);
        if (!sample || !window->bring(sample->position, sample->size)) break;
    }
    if (isStopped()) return true;
    // The samples ran out before every asked picture came: the decoder still
    // holds the last ones.
    decoder->setParameter(kDecoderParamDrain, nullptr);
    drainDecoder();
    while (nextAsked < askedPts.size() && !isStopped()) reportMissing();
    setState(kStateStopped);
    return true;
}

void TessaloImpl::restartDecoder() {
    decoder->setParameter(kDecoderParamDrain, nullptr);
    drainDecoder();
    decoder->setParameter(kDecoderParamResume, nullptr);
}

void TessaloImpl::drainDecoder() {
    for (int i = 0; i < kDrainLimit && !isStopped(); ++i)
        if (receivePicture() == 0) break;
}

int32_t TessaloImpl::receivePicture() {
    const int32_t r = decoder->outputData(&picture);
    if (r == 2) {
        // Nothing new came: picture still holds the last picture's pts.
        currentPts = picture.pts;
        notifyHost(kHostEventDecodeError);
        return 2;
    }
    if (r != 1) return 0;
    answerPicture();
    return 1;
}

// Pictures come out in presentation order, and the asked timestamps are in
// that order too: a picture answers the next asked timestamp if it is its
// own, passes as unasked if it comes before it, and shows that every asked
// timestamp before its own will not come. Nothing is ever delivered under a
// timestamp that is not the picture's own.
void TessaloImpl::answerPicture() {
    const size_t asked = askedPts.size();
    while (nextAsked < asked && askedPts[nextAsked] < picture.pts && !isStopped()) reportMissing();
    if (nextAsked < asked && askedPts[nextAsked] == picture.pts && !isStopped()) {
        ++nextAsked;
        deliver();
    }
    if (nextAsked == asked) finish();
}

// An asked picture that the decoder did not give (its data failed, or it
// cannot be made whole from the file): kHostEventDecodeError, during which
// TSL_GetPicPts gives its timestamp.
void TessaloImpl::reportMissing() {
    currentPts = askedPts[nextAsked++];
    notifyHost(kHostEventDecodeError);
}

void TessaloImpl::deliver() {
    currentPts = picture.pts;
    // The first picture of a request carries the key mark; later ones the
    // decoder's own.
    currentKey = firstDelivered ? picture.keyFrame : true;
    firstDelivered = true;
    convertPicture(picture, &scaler, &outputPicture, &outputPictureSize, pictureFormat);
    notifyHost(kHostEventPicReady);
}

// No further picture is wanted: stop the decoder and the walk.
void TessaloImpl::finish() {
    decoder->setParameter(kDecoderParamFlush, nullptr);
    setState(kStateStopped);
}

}  // namespace Morvel_Tessalo
