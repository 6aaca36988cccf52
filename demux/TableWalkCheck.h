#pragma once
// Whether a file's index can come from its sample tables: whether
// libavformat, reading the file without its sample payloads and without its
// parsers, reports the packets it reports when it reads every byte and
// parses the video. That holds when
//  - the layout is one movie box that describes every sample: no movie
//    fragments, no sample dependency box (libavformat makes packet flags of
//    it that its parser would have dropped) and no partial sync samples;
//  - every stream that the walk reads is H.264 video, AAC audio or timed
//    text, whose packets libavformat builds from the tables alone;
//  - the key marks agree: with its parser libavformat marks a video packet
//    as key when the H.264 data holds an IDR picture or a recovery point,
//    without it when the sync sample table lists the sample. The parser is
//    held against the table on a few samples of each video stream: sync
//    samples at the start, the middle and the end, and the largest samples
//    that the table leaves unmarked, where an unlisted key picture would be.
// All of it runs on the thread that opens the parser, before the walk.
#include "demux/FileInput.h"

// The format libavformat picks for MP4, MOV and their kin.
bool isMovFamily(const AVInputFormat* format);
// The layout test, from the box headers alone.
bool layoutAllowsTables(FileInput& input);
// The stream and key mark tests, on a context opened through `input`.
bool streamsAllowTables(FileInput& input, const AVFormatContext* context);
