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

TEST(Walk, IndexEqualsFfprobe) {
    for (const char* name : {"main.mp4", "twovideo.mp4", "noaudio.mp4"}) expectIndexMatchesProbe(name);
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

// What TSL_GetPicByPts and TSL_StartPic do first: stop the walk. The walk
// then announces the part indexed so far, from inside the stop, unsorted.
TEST(Walk, AStoppedWalkAnnouncesItsUnsortedPart) {
    const tsltest::ProbeIndex truth = tsltest::probeIndex(tsltest::longWalkFile());
    ASSERT_TRUE(truth.ok);
    // The stop has to land while the reader is inside the file: a pause after
    // the media information lets it index a part first. Too short a pause
    // finds nothing indexed, too long a one a finished walk; both are retried
    // with another pause. The pause only makes the interesting case likely.
    for (int pauseMs : {20, 5, 60, 2, 120, 10, 40}) {
        tsltest::EventRecorder events;
        TessaloImpl instance(&events, &tsltest::EventRecorder::callback);
        ASSERT_TRUE(instance.startPic(tsltest::longWalkFile().c_str()));
        ASSERT_TRUE(events.waitFor(kHostEventMediaInfo));
        std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
        instance.stopWorker();
        EXPECT_EQ(instance.demuxer, nullptr) << "the reader has ended with the worker";
        const size_t groups = instance.keyGroups.size();
        const std::vector<int32_t> expected =
            groups ? std::vector<int32_t>{kHostEventMediaInfo, kHostEventIndexReady}
                   : std::vector<int32_t>{kHostEventMediaInfo};
        EXPECT_EQ(events.events(), expected) << "an empty index is never announced";
        if (groups == 0 || groups >= truth.keyGroups.size()) continue;

        ASSERT_EQ(instance.sortedKeyGroups.size(), groups);
        for (size_t g = 0; g < groups; ++g) {
            const FrameGroup& sorted = *instance.sortedKeyGroups[g];
            // All but the last group are whole; the last one may be short.
            if (g + 1 < groups) {
                EXPECT_EQ(sorted.size(), truth.keyGroups[g].size()) << "group " << g;
            }
            ASSERT_LE(sorted.size(), truth.keyGroups[g].size());
            for (size_t i = 0; i < sorted.size(); ++i) {
                EXPECT_EQ(sorted[i]->pts, truth.keyGroups[g][i].pts) << "group " << g << " at " << i;
            }
        }
        return;
    }
    GTEST_SKIP() << "no stop landed inside a walk";
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
