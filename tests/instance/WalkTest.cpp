// Index walks of real files through the instance, record by record against
// ffprobe, and the instance's translation of demuxer and cut-engine reports.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "demux/DemuxerBase.h"
#include "edit/FileEditer.h"
#include "instance/ProbeIndex.h"
#include "instance/TessaloImpl.h"
#include "support/TestSupport.h"

using namespace Morvel_Tessalo;

namespace {

// Walks `file` to its end on a fresh instance and leaves it for inspection.
class WalkedFile {
public:
    explicit WalkedFile(const std::string& file) {
        started = instance.startPic(file.c_str());
        ended = events.waitForAny({kHostEventIndexReady, kHostEventFileError, kHostEventError,
                                   kHostEventBadCodec, kHostEventNoVideo});
        instance.stopWorker();  // the worker has sent its last event; join it
    }
    tsltest::EventRecorder events;
    TessaloImpl instance{&events, &tsltest::EventRecorder::callback};
    bool started = false;
    int32_t ended = -1;
};

void expectSameRecords(const std::vector<FrameRecord*>& actual, const std::vector<tsltest::ProbeRecord>& expected,
                       const std::string& what) {
    ASSERT_EQ(actual.size(), expected.size()) << what;
    for (size_t i = 0; i < expected.size(); ++i) {
        SCOPED_TRACE(what + " record " + std::to_string(i));
        EXPECT_EQ(actual[i]->isKey != 0, expected[i].isKey);
        EXPECT_EQ(actual[i]->size, expected[i].size);
        EXPECT_EQ(actual[i]->pts, expected[i].pts);
        EXPECT_EQ(actual[i]->dts, expected[i].dts);
        EXPECT_EQ(actual[i]->position, expected[i].position);
    }
}

void expectIndexMatchesProbe(const std::string& name) {
    SCOPED_TRACE(name);
    const tsltest::ProbeIndex truth = tsltest::probeIndex(tsltest::media(name));
    ASSERT_TRUE(truth.ok);
    ASSERT_GT(truth.keyGroups.size(), 1u);
    WalkedFile walk(tsltest::media(name));
    ASSERT_TRUE(walk.started);
    ASSERT_EQ(walk.ended, kHostEventIndexReady);
    EXPECT_EQ(walk.events.events(), (std::vector<int32_t>{kHostEventMediaInfo, kHostEventIndexReady}));

    const TessaloImpl& in = walk.instance;
    ASSERT_EQ(in.keyGroups.size(), truth.keyGroups.size());
    ASSERT_EQ(in.sortedKeyGroups.size(), truth.keyGroups.size());
    for (size_t g = 0; g < truth.keyGroups.size(); ++g) {
        expectSameRecords(*in.keyGroups[g], truth.keyGroups[g], "group " + std::to_string(g));
        std::vector<int64_t> sorted;
        for (const FrameRecord* r : *in.sortedKeyGroups[g]) sorted.push_back(r->pts);
        EXPECT_EQ(sorted, truth.sortedGroupPts()[g]) << "group " << g;
    }
    expectSameRecords(in.audioFrames, truth.audioFrames, "audio");
}

TEST(Walk, IndexOfMainEqualsFfprobe) { expectIndexMatchesProbe("main.mp4"); }
TEST(Walk, IndexOfFaststartEqualsFfprobe) { expectIndexMatchesProbe("faststart.mp4"); }
TEST(Walk, BothVideoStreamsFeedOneIndex) { expectIndexMatchesProbe("twovideo.mp4"); }

TEST(Walk, NoAudioLeavesAudioEmpty) {
    expectIndexMatchesProbe("noaudio.mp4");
    WalkedFile walk(tsltest::media("noaudio.mp4"));
    EXPECT_TRUE(walk.instance.audioFrames.empty());
    EXPECT_FALSE(walk.instance.keyGroups.empty());
}

TEST(Walk, KeepsExtraDataAndHandsTheTrackRecordsOver) {
    WalkedFile walk(tsltest::media("main.mp4"));
    ASSERT_EQ(walk.ended, kHostEventIndexReady);
    const TessaloImpl& in = walk.instance;
    // avcC as stored (version byte 1) and the Annex B form with a start code.
    ASSERT_GT(in.extraDataSize, 7);
    ASSERT_NE(in.extraData, nullptr);
    EXPECT_EQ(in.extraData[0], 1);
    ASSERT_GT(in.annexBExtraDataSize, 4);
    ASSERT_NE(in.annexBExtraData, nullptr);
    EXPECT_EQ(in.annexBExtraData[0], 0);
    EXPECT_EQ(in.annexBExtraData[1], 0);
    // The engine copied the track records; the instance's own are zeroed.
    EXPECT_EQ(in.videoTrackInfo.width, 0);
    EXPECT_EQ(in.videoTrackInfo.extraData, nullptr);
    EXPECT_EQ(in.audioTrackInfo.sampleRate, 0);
    EXPECT_EQ(in.audioTrackInfo.codecType, 0);
    // Nothing of the walk is left running or held.
    EXPECT_EQ(in.demuxer, nullptr);
    EXPECT_EQ(in.worker, nullptr);
    EXPECT_EQ(in.state, kStateStopped);
}

TEST(Walk, ASecondFileReplacesTheFirstsIndex) {
    WalkedFile walk(tsltest::media("main.mp4"));
    ASSERT_EQ(walk.ended, kHostEventIndexReady);
    walk.events.clear();
    ASSERT_TRUE(walk.instance.startPic(tsltest::media("tiny.mp4").c_str()));
    ASSERT_TRUE(walk.events.waitFor(kHostEventIndexReady));
    walk.instance.stopWorker();
    const tsltest::ProbeIndex tiny = tsltest::probeIndex(tsltest::media("tiny.mp4"));
    ASSERT_EQ(walk.instance.keyGroups.size(), tiny.keyGroups.size());
    expectSameRecords(*walk.instance.keyGroups[0], tiny.keyGroups[0], "tiny");
    expectSameRecords(walk.instance.audioFrames, tiny.audioFrames, "tiny audio");
}

TEST(Walk, RefusedFileLeavesNoIndexAndNoWorker) {
    WalkedFile walk(tsltest::media("hevc.mp4"));
    EXPECT_EQ(walk.ended, kHostEventBadCodec);
    EXPECT_TRUE(walk.instance.keyGroups.empty());
    EXPECT_TRUE(walk.instance.audioFrames.empty());
    EXPECT_EQ(walk.instance.state, kStateStopped);
}

class Reports : public ::testing::Test {
protected:
    tsltest::EventRecorder events;
    TessaloImpl instance{&events, &tsltest::EventRecorder::callback};
};

TEST_F(Reports, DemuxerErrorsBecomeTheirHostEvents) {
    const std::pair<int, int32_t> table[] = {
        {kDemuxerErrorGeneral, kHostEventError},       {kDemuxerErrorUnassigned, kHostEventUnassigned},
        {kDemuxerErrorNoVideo, kHostEventNoVideo},     {kDemuxerErrorCodec, kHostEventBadCodec},
        {kDemuxerErrorSampleRate, kHostEventBadSampleRate}, {kDemuxerErrorChannels, kHostEventBadChannels},
        {6, kHostEventError},                          {-3, kHostEventError},
    };
    for (bool fetch : {false, true}) {
        instance.fetchMode = fetch;  // errors pass in either mode
        for (const auto& [detail, event] : table) {
            events.clear();
            TessaloImpl::onDemuxerEvent(kDemuxerEventError, detail, nullptr, &instance);
            EXPECT_EQ(events.events(), std::vector<int32_t>{event}) << "detail " << detail;
        }
        events.clear();
        TessaloImpl::onDemuxerEvent(kDemuxerEventOpenFailed, 0, nullptr, &instance);
        EXPECT_EQ(events.events(), std::vector<int32_t>{kHostEventFileError});
    }
}

TEST_F(Reports, EndsAndUnknownKindsAreSilent) {
    instance.setState(kStateRunning);
    TessaloImpl::onDemuxerEvent(kDemuxerEventEnded, kDemuxerMediaAudio, nullptr, &instance);
    TessaloImpl::onDemuxerEvent(7, 0, nullptr, &instance);
    EXPECT_FALSE(instance.isStopped()) << "only the end of the video ends the walk";
    instance.fetchMode = true;
    TessaloImpl::onDemuxerEvent(kDemuxerEventEnded, kDemuxerMediaVideo, nullptr, &instance);
    TessaloImpl::onDemuxerEvent(kDemuxerEventReady, 0, nullptr, &instance);
    EXPECT_FALSE(instance.isStopped()) << "a fetch is not ended by a demuxer";
    EXPECT_TRUE(events.events().empty());
}

TEST_F(Reports, TheEndOfTheVideoSortsAndWakesTheWaitingWorker) {
    DemuxerPacket packet{};
    for (int64_t pts : {0, 80, 40}) {
        packet.pts = pts;
        packet.key = pts == 0;
        TessaloImpl::onDemuxerPacket(kDemuxerPacketVideo, &packet, &instance);
    }
    instance.setState(kStateRunning);
    std::thread waiter([this] { instance.waitForIndex(); });
    TessaloImpl::onDemuxerEvent(kDemuxerEventEnded, kDemuxerMediaVideo, nullptr, &instance);
    waiter.join();  // would hang if the end were lost
    EXPECT_TRUE(instance.isStopped());
    EXPECT_EQ((*instance.sortedKeyGroups[0])[1]->pts, 40);
    EXPECT_EQ((*instance.keyGroups[0])[1]->pts, 80);
    // An end that came before the wait ends it as well.
    instance.waitForIndex();
}

TEST_F(Reports, CutEngineNotifications) {
    TessaloImpl::onEditerNotify(&instance, kNotifyDone);
    TessaloImpl::onEditerNotify(&instance, kNotifyFailed);
    TessaloImpl::onEditerNotify(&instance, 2);
    EXPECT_EQ(events.events(), (std::vector<int32_t>{kHostEventCutDone, kHostEventCutFailed}));
}

}  // namespace
