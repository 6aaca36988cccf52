// The picture fetch on bent indexes: file reads the walk's index never asks
// for (positions out of order, a gap past one 32-bit move, unknown positions,
// samples longer than the read buffer) stay inside the read buffer and either
// decode correctly or end the request cleanly.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "decode/DecoderBase.h"
#include "instance/TessaloImpl.h"
#include "platform/PlatformFile.h"
#include "platform/ReadWindow.h"
#include "support/TestSupport.h"

using namespace Morvel_Tessalo;

namespace {

const std::string kMain = tsltest::media("main.mp4");

// An instance that has walked main.mp4, so its path, avcC and index are real;
// a test bends them, then runs one request as the worker does, on this thread.
struct Fetch {
    tsltest::EventRecorder walk;
    TessaloImpl impl{&walk, &tsltest::EventRecorder::callback};
    std::vector<int32_t> events;
    std::vector<std::string> md5s;

    Fetch() {
        EXPECT_TRUE(impl.startPic(kMain.c_str()) && walk.waitFor(kHostEventIndexReady));
        impl.stopWorker();
        impl.userData = this;
        impl.hostCallback = &Fetch::callback;
    }
    static int32_t callback(void* user, int32_t event) {
        auto* self = static_cast<Fetch*>(user);
        self->events.push_back(event);
        if (event == kHostEventPicReady)
            self->md5s.push_back(tsltest::md5(self->impl.outputPicture.get(), size_t(self->impl.outputPictureSize)));
        return 0;
    }
    // One request; by default for the first sample of each group, in the index's order.
    bool run(std::vector<int64_t> asked = {}) {
        if (asked.empty())
            for (const FrameGroup* g : impl.keyGroups) asked.push_back(g->front()->pts);
        impl.askedPts = asked;
        impl.setState(kStateRunning);  // as startWorker leaves it
        impl.locateStart();
        const bool result = impl.fetchPictures();
        if (impl.decoder) impl.decoder->close();  // the owner closes; the destructor deletes
        return result;
    }
};

size_t movesFromBegin = 0;

}  // namespace

// Groups after the first lie 3 GiB further on, in a sparse copy: the jump
// there cannot be one 32-bit move, and the pictures must still be right.
TEST(PictureFetch, AGapBeyondOneThirtyTwoBitMoveIsCrossedAndThePicturesAreRight) {
    Fetch fetch;
    ASSERT_EQ(fetch.impl.keyGroups.size(), 5u);
    const std::string sparse = tsltest::scratchDir() + "/sparse.mp4";
    const std::string in = tsltest::shellQuote(kMain), out = tsltest::shellQuote(sparse);
    int status = 0;  // a copy, and the file again 3072 MiB in
    tsltest::run("cp " + in + " " + out + " && dd status=none conv=notrunc bs=1M seek=3072 if=" + in + " of=" + out,
                 &status);
    ASSERT_EQ(status, 0);
    fetch.impl.path.reset(new char[sparse.size() + 1]);
    std::memcpy(fetch.impl.path.get(), sparse.c_str(), sparse.size() + 1);
    for (size_t g = 1; g < fetch.impl.keyGroups.size(); ++g)
        for (FrameRecord* r : *fetch.impl.keyGroups[g]) r->position += 3LL << 30;
    movesFromBegin = 0;
    setFileMoveHook([](int32_t, MoveFrom from) { movesFromBegin += from == MoveFrom::Begin; });
    const bool result = fetch.run();
    setFileMoveHook(nullptr);
    std::filesystem::remove(sparse);
    EXPECT_TRUE(result);
    EXPECT_EQ(fetch.md5s, tsltest::ffmpegFrameMd5(kMain, true));
    EXPECT_EQ(fetch.events.back(), kHostEventPicReady);
    EXPECT_GE(movesFromBegin, 2u) << "the 3 GiB jump restarts from the beginning of the file";
}

// Groups in the opposite order of the file: each key sample lies before the
// bytes held and is read again from its own place. The last group (first in
// the file) keeps its other samples, which push the pictures out.
TEST(PictureFetch, SampleBeforeTheBufferIsReadFromItsPlace) {
    Fetch fetch;
    std::vector<FrameGroup*>& groups = fetch.impl.keyGroups;
    std::reverse(groups.begin(), groups.end());
    for (size_t g = 0; g + 1 < groups.size(); ++g) groups[g]->resize(1);  // the index still owns the records
    std::vector<std::string> want = tsltest::ffmpegFrameMd5(kMain, true);
    std::reverse(want.begin(), want.end());
    EXPECT_TRUE(fetch.run());
    EXPECT_EQ(fetch.md5s, want) << "key pictures depend on themselves only";
}

// Nothing unrelated is decoded from the bytes at the start of the file.
TEST(PictureFetch, AFirstSampleWithoutAPositionFailsTheRequest) {
    Fetch fetch;
    fetch.impl.keyGroups[0]->front()->position = -1;
    EXPECT_FALSE(fetch.run());
    EXPECT_EQ(fetch.events, (std::vector<int32_t>{kHostEventFileError}));
}

TEST(PictureFetch, ALaterSampleThatCannotBeHeldEndsTheRequestAsTheFileWould) {
    // A later sample without a position, longer than the read buffer, or
    // reaching past the end of the file: the request ends there, as at the
    // end of the file: what the decoder still holds comes out, and each asked
    // picture that cannot come is answered by a decode error, in order.
    const int64_t fileSize = static_cast<int64_t>(std::filesystem::file_size(kMain));
    for (const char* variant : {"no position", "longer than the read buffer", "past the end of the file"}) {
        SCOPED_TRACE(variant);
        Fetch fetch;
        FrameRecord& bad = *(*fetch.impl.keyGroups[0])[3];
        if (variant[0] == 'n') bad.position = -1;
        if (variant[0] == 'l') bad.size = kReadBufferSize + 1;
        if (variant[0] == 'p') {
            bad.size = 0x100000;
            bad.position = fileSize - 100;
        }
        std::vector<int64_t> asked;
        for (const FrameRecord* r : *fetch.impl.sortedKeyGroups[0]) asked.push_back(r->pts);
        EXPECT_TRUE(fetch.run(asked));
        EXPECT_LT(fetch.md5s.size(), asked.size());
        EXPECT_EQ(fetch.events.size(), asked.size());
        EXPECT_EQ(std::count(fetch.events.begin(), fetch.events.end(), kHostEventPicReady), 3) << "the samples before";
        for (int32_t e : fetch.events) EXPECT_TRUE(e == kHostEventPicReady || e == kHostEventDecodeError) << e;
    }
}
