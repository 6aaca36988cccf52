#include "edit/PictureMaker.h"

#include <algorithm>
#include <new>

PictureMaker::PictureMaker(const std::vector<FrameGroup*>& keyGroups, Reader reader,
                           const std::vector<uint8_t>& sourceSets, const PictureLook& pictureLook,
                           const std::vector<uint8_t>& declaredSets, size_t from, std::vector<int64_t> pts)
    : groups(keyGroups), read(std::move(reader)), look(pictureLook), sets(declaredSets), wanted(std::move(pts)),
      at{from, 0} {
    failed = !decoder.open(sourceSets.data(), int32_t(sourceSets.size()));
}

PictureMaker::Next PictureMaker::next(EncodedPicture* picture, const std::function<bool()>& stop) {
    while (ready.empty()) {
        if (failed) return Next::Failed;
        if (finished) return Next::End;
        if (stop()) return Next::Stopped;
        try {
            failed = !step();
        } catch (const std::bad_alloc&) {
            failed = true;
        }
    }
    *picture = std::move(ready.front());
    ready.pop_front();
    return Next::Picture;
}

// One sample into the decoder; once every wanted picture has gone to the
// encoder, or the samples have run out, the decoder and the encoder give up
// what they hold and the run ends.
bool PictureMaker::step() {
    if (sent < wanted.size() && at.group < groups.size()) {
        const FrameRecord& record = *(*groups[at.group])[at.frame];
        if (++at.frame == groups[at.group]->size()) at = IndexPlace{at.group + 1, 0};
        int32_t size = 0;
        const uint8_t* sample = read(record, &size);
        if (!sample) return false;
        if (size > 0) decoder.decode(sample, size, record.pts, [this](AVFrame& frame) { return take(frame); });
        return !failed;
    }
    if (sent < wanted.size()) decoder.drain([this](AVFrame& frame) { return take(frame); });
    // A wanted picture that never came out whole fails the run: no other
    // picture may stand in its place.
    if (failed || sent < wanted.size() || !encoder.finish(encoded)) return false;
    ready.insert(ready.end(), std::make_move_iterator(encoded.begin()), std::make_move_iterator(encoded.end()));
    encoded.clear();
    finished = true;
    return true;
}

bool PictureMaker::take(AVFrame& frame) {
    if (!std::binary_search(wanted.begin(), wanted.end(), frame.pts)) return true;
    // Every encoder opened in the look writes the parameter sets declared for the file.
    if (!opened && (!encoder.open(look) || encoder.parameterSets() != sets)) failed = true;
    opened = true;
    if (failed || !encoder.encode(frame, encoded)) {
        failed = true;
        return false;
    }
    ++sent;
    ready.insert(ready.end(), std::make_move_iterator(encoded.begin()), std::make_move_iterator(encoded.end()));
    encoded.clear();
    return sent < wanted.size();
}
