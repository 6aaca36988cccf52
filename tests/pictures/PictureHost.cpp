#include "PictureHost.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "support/TestSupport.h"
#include "tessalo.h"

PictureHost::PictureHost() { handle = TSL_CreateTessalo(this, &PictureHost::callback); }

PictureHost::~PictureHost() { TSL_DestoryTessalo(handle); }

int32_t PictureHost::callback(void* user, int32_t event) {
    auto* self = static_cast<PictureHost*>(user);
    if (event == kHostEventPicReady) {
        DeliveredPicture pic;
        pic.size = TSL_GetOnePicSize(self->handle);
        std::vector<uint8_t> block(static_cast<size_t>(std::max(pic.size, 0)));
        int32_t copied = pic.size > 0 ? TSL_GetPic(self->handle, block.data(), &pic.pts, &pic.key) : 0;
        EXPECT_EQ(copied, pic.size);
        EXPECT_EQ(TSL_GetPicPts(self->handle), pic.pts);
        pic.md5 = tsltest::md5(block.data(), block.size());
        if (self->keepBytes) pic.bytes = std::move(block);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->delivered.push_back(std::move(pic));
    }
    std::lock_guard<std::mutex> lock(self->mutex);
    self->seen.push_back(event);
    self->changed.notify_all();
    return 0;
}

bool PictureHost::waitFor(int32_t event, size_t times) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(60), [&] {
        return static_cast<size_t>(std::count(seen.begin(), seen.end(), event)) >= times;
    });
}

bool PictureHost::index(const std::string& path) {
    clear();
    if (!TSL_StartPic(handle, path.c_str())) return false;
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, std::chrono::seconds(60), [&] {
        for (int32_t e : seen)
            if (e == kHostEventIndexReady || (e >= kHostEventFileError && e != kHostEventNoPic)) return true;
        return false;
    });
    return std::find(seen.begin(), seen.end(), kHostEventIndexReady) != seen.end();
}

bool PictureHost::send(const std::vector<int64_t>& pts) {
    return TSL_GetPicByPts(handle, pts.data(), static_cast<int32_t>(pts.size()));
}

std::vector<int32_t> PictureHost::request(const std::vector<int64_t>& pts) {
    clear();
    if (!send(pts)) return {};
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, std::chrono::seconds(60), [&] {
        for (int32_t e : seen)
            if (e == kHostEventPicDone || e == kHostEventError || e == kHostEventFileError) return true;
        return false;
    });
    return seen;
}

std::vector<int64_t> PictureHost::keyPts() {
    std::vector<int64_t> out(static_cast<size_t>(std::max(TSL_GetKeyPtsCount(handle), 0)));
    out.resize(static_cast<size_t>(std::max(TSL_GetKeyPts(handle, out.data()), 0)));
    return out;
}

std::vector<int64_t> PictureHost::groupPts(int64_t key) {
    std::vector<int64_t> out(static_cast<size_t>(std::max(TSL_GetPtsCountByKeyPts(handle, key), 0)));
    out.resize(static_cast<size_t>(std::max(TSL_GetPtsByKeyPts(handle, key, out.data()), 0)));
    return out;
}

std::vector<int64_t> PictureHost::allPts() {
    std::vector<int64_t> all;
    for (int64_t key : keyPts()) {
        std::vector<int64_t> group = groupPts(key);
        all.insert(all.end(), group.begin(), group.end());
    }
    return all;
}

std::vector<int32_t> PictureHost::events() {
    std::lock_guard<std::mutex> lock(mutex);
    return seen;
}

std::vector<DeliveredPicture> PictureHost::pictures() {
    std::lock_guard<std::mutex> lock(mutex);
    return delivered;
}

void PictureHost::clear() {
    std::lock_guard<std::mutex> lock(mutex);
    seen.clear();
    delivered.clear();
}

std::vector<std::string> ffmpegFrameMd5(const std::string& path, bool keysOnly) {
    int status = -1;
    std::string text = tsltest::run(std::string("ffmpeg -v error ") + (keysOnly ? "-skip_frame nokey " : "") +
                                        "-i " + tsltest::shellQuote(path) +
                                        " -map 0:v:0 -fps_mode passthrough -pix_fmt yuv420p -f framemd5 -",
                                    &status);
    EXPECT_EQ(status, 0);
    std::vector<std::string> md5s;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.empty() || line[0] == '#') continue;
        md5s.push_back(line.substr(line.rfind(',') + 2));
    }
    return md5s;
}
