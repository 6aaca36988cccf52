#pragma once
// The object behind a host's handle: one file at a time, one worker thread at
// a time, the frame index of the current file and the current picture.
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "api/tessalo.h"
#include "base/BasePacket.h"
#include "base/FFmpegHolders.h"
#include "instance/FrameRecord.h"
#include "instance/PictureOutput.h"
#include "mux/TrackInfo.h"

struct ReadWindow;

namespace Morvel_Tessalo {

class DemuxerBase;
class DecoderBase;
class FileEditer;
class FetchPlan;
class KeyProbe;
struct DemuxerPacket;

// Values of TessaloImpl::state.
constexpr int32_t kStateRunning = 0;   // a worker has started: walk, or a fetch about to begin
constexpr int32_t kStateFetching = 1;  // fetchPictures is feeding the decoder
constexpr int32_t kStateStopped = 2;   // nothing runs, or the worker has been told to end

// Fields are public on purpose: the exports, the picture path and the cut
// engine read them in place, and nothing guards them but the order of events.
class TessaloImpl {
public:
    TessaloImpl(void* user, TessaloCallback callback);
    ~TessaloImpl();
    TessaloImpl(const TessaloImpl&) = delete;
    TessaloImpl& operator=(const TessaloImpl&) = delete;

    // Requests of the host (TSL_StartPic, TSL_GetPicByPts). Both wait for the
    // worker, so from inside one of this instance's callbacks they refuse
    // at once with false: the thread they would wait for may be this one.
    bool startPic(const char* newPath);
    bool getPicByPts(const int64_t* pts, int32_t count);
    // True on a thread that is inside a callback of this instance, where no
    // export that waits for the library's threads may run.
    bool insideCallback() const;

    // The worker's life, on the host's thread: startWorker marks the
    // request running and starts the worker; stopWorker marks it stopped,
    // wakes the worker and joins it.
    bool startWorker();
    void stopWorker();

    // Worker thread: the body of one request, walk or fetch.
    void workerMain();
    bool openDemuxer();
    // The walk's sleep until the reader has ended or the request is stopped.
    void waitForIndex();

    // Any thread (host, worker, reader): the request's state under stateMutex.
    void setState(int32_t value);
    bool isStopped();
    // Running becomes fetching, and nothing else does: a stop that came
    // first stays. False when the request has been given up.
    bool enterFetching();
    // Wakes a worker sleeping in waitForIndex (host's or reader thread).
    void wakeWorker();

    // Reports from the demuxer (user data: the instance): packets on the
    // reader thread, events on the reader thread or, while the demuxer
    // starts, on the worker. Reports of the cut engine come on the cut
    // thread (a failure) or the muxer's writing thread (done).
    static int onDemuxerPacket(int kind, DemuxerPacket* packet, void* user);
    static void onDemuxerEvent(int kind, int detail, void* data, void* user);
    static void onEditerNotify(void* context, int32_t code);
    // Worker thread, inside the demuxer's ready event.
    void readMediaInfo();

    // Frame index. The reader thread adds and sorts; false from an add
    // means no memory (the sample may then be in one order and not the
    // other), after which the walk fails.
    bool addVideoFrame(int64_t pts, int64_t dts, bool isKey, int64_t position, int32_t size);
    bool addAudioFrame(int64_t pts, int64_t dts, bool isKey, int64_t position, int32_t size);
    void sortIndex();
    // Host's thread, with no worker running.
    void clearIndex();
    int32_t getKeyPts(int64_t* out);
    int32_t getPtsCountByKeyPts(int64_t keyPts);
    int32_t getPtsByKeyPts(int64_t keyPts, int64_t* out);

    // Picture retrieval (worker thread).
    bool openDecoder(int32_t size, uint8_t* data);
    void locateStart();
    bool fetchPictures();
    // One output of the decoder: 1 a picture came (delivered if asked), 2 the
    // decoder failed, 0 nothing came.
    int32_t receivePicture();

    // Sends one host event, on whichever thread raised it; no lock may be
    // held by the caller.
    void notifyHost(int32_t event);

    void* userData = nullptr;
    TessaloCallback hostCallback = nullptr;
    std::unique_ptr<DemuxerBase> demuxer;
    std::unique_ptr<DecoderBase> decoder;
    bool fetchMode = false;
    std::unique_ptr<char[]> path;  // UTF-8, as the host gave it
    std::vector<int64_t> askedPts;
    std::vector<FrameGroup*> keyGroups;        // stream order
    std::vector<FrameGroup*> sortedKeyGroups;  // each group sorted by pts once the walk ended
    FrameGroup* currentSortedGroup = nullptr;
    FrameGroup* currentKeyGroup = nullptr;
    std::vector<FrameRecord*> audioFrames;
    // What the lists above point at: a deque keeps every element in place as
    // it grows, and clearIndex empties them last.
    std::deque<FrameRecord> frameRecords;
    std::deque<FrameGroup> frameGroups;
    std::unique_ptr<std::thread> worker;
    std::mutex stateMutex;
    std::mutex wakeMutex;
    std::condition_variable wakeCondition;
    int32_t state = kStateStopped;
    int32_t outputFormat = 0;
    int32_t pictureFormat = 0;  // outputFormat as the current request began; the one its pictures take
    size_t nextAsked = 0;       // index in askedPts of the first timestamp not yet answered
    bool keysOnly = false;
    bool firstDelivered = false;
    std::unique_ptr<uint8_t[]> outputPicture;
    int32_t outputPictureSize = 0;
    VideoPacket picture;
    ScalerHolder scaler;  // libswscale's context, kept from one picture to the next
    int64_t currentPts = -1;
    bool currentKey = false;
    TessaloMediaInfo mediaInfo{};
    uint32_t startGroup = 0;
    int32_t extraDataSize = 0;
    std::unique_ptr<uint8_t[]> extraData;
    int32_t annexBExtraDataSize = 0;
    std::unique_ptr<uint8_t[]> annexBExtraData;
    VideoTrackInfo videoTrackInfo{};
    AudioTrackInfo audioTrackInfo{};
    // FFmpeg's error code behind the walk's last failure or refusal event, as
    // the demuxer gave it while raising the event (0: none came from FFmpeg).
    // The events stay as they are; this keeps the cause next to them.
    int32_t failureCode = 0;
    // Where the index's video and audio timelines start in the file, kept from
    // the walk's demuxer for the cut engine (which keeps the source's sync).
    IndexOrigins indexOrigins{};
    std::unique_ptr<FileEditer> editor;  // made by the constructor

private:
    // Reader thread.
    void addToGroups(const FrameRecord& record, FrameGroup** current, std::vector<FrameGroup*>* groups);
    // Reader thread or worker, inside a failure event of the demuxer.
    void keepFailureCode(int kind, int detail);
    // Worker thread.
    void runWorker();
    void releaseWorkerObjects();
    void planKeys(FetchPlan* plan, KeyProbe* probe);
    void planRun(FetchPlan* plan, KeyProbe* probe);
    bool feedPlan(FetchPlan* plan, ReadWindow* window);
    void restartDecoder();
    void drainDecoder();
    void answerPicture();
    void reportMissing();
    void deliver();
    void finish();
};

}  // namespace Morvel_Tessalo
