/*
 * Tessalo: index MP4 files (H.264 + AAC), deliver pictures by timestamp and
 * cut time ranges into a new MP4 without re-encoding.
 *
 * This is the only header a host includes. It compiles as C99 and as C++.
 * Every timestamp is a signed 64-bit count of milliseconds relative to the
 * first video packet of the file. Results speak only of handles, arguments,
 * threads and memory; everything about the file arrives as an event through
 * the callback, on a thread of the library.
 */
#ifndef TESSALO_H
#define TESSALO_H

#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#if defined(__GNUC__)
#define TESSALO_EXPORT __attribute__((visibility("default")))
#else
#define TESSALO_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The host's callback: `user` as given to TSL_CreateTessalo, `event` one of
 * the kHostEvent codes below. The result is not read. */
typedef int32_t (*TessaloCallback)(void* user, int32_t event);

/* Host event codes. */
enum {
    kHostEventMediaInfo = 0,      /* file accepted; TSL_GetMediaInfo is valid */
    kHostEventIndexReady = 1,     /* index complete; key queries, pictures and cuts may be used */
    kHostEventPicStart = 2,       /* a picture request begins */
    kHostEventPicReady = 3,       /* a picture is ready: call TSL_GetOnePicSize / TSL_GetPic now */
    kHostEventPicDone = 4,        /* a picture request ended */
    kHostEventFileError = 5,      /* the file could not be opened or read */
    kHostEventError = 6,          /* set-up failure, repeated read failures, no start group */
    kHostEventBadCodec = 7,       /* video not H.264 or audio not AAC */
    kHostEventBadSampleRate = 8,  /* AAC sample rate neither 44100 nor 48000 */
    kHostEventBadChannels = 9,    /* AAC channel count outside 1..3 */
    kHostEventNoPic = 10,         /* the request ended without a picture; right before PicDone */
    kHostEventDecodeError = 11,   /* a sample failed to decode; the request goes on */
    kHostEventUnassigned = 12,    /* reserved demuxer error detail */
    kHostEventNoVideo = 13,       /* no usable video stream */
    kHostEventCutFailed = 14,     /* the cut job failed (cut thread) */
    kHostEventCutDone = 15        /* the new file is complete (muxer thread) */
};

/* Picture formats for TSL_SetOutputPicFormat: 0 is packed planar I420,
 * any other value is bottom-up 24-bit BGR (bytes blue, green, red). */
enum {
    kPicFormatI420 = 0,
    kPicFormatBgr24 = 3
};

/* Cut kinds for TSL_CutFile, all into an MP4 (or MOV) file. 0 rebuilds the
 * timeline from running sums, with fixed steps at each join. 1 moves each
 * range as one block: audio and video keep the source's own offset, the
 * ranges join without overlap, and a file without audio is cut too. 2 is
 * frame-exact on the timeline of 1: each range shows exactly the pictures
 * whose pts lies in [start, end]; the pictures before its first IDR key frame
 * and after its last clean point are encoded again with libx264, the rest is
 * copied. */
enum {
    kCutKindMp4 = 0,
    kCutKindSynced = 1,
    kCutKindExact = 2
};

/* The 48-byte record copied by TSL_GetMediaInfo. Height stands before width. */
typedef struct TessaloMediaInfo {
    int32_t height;
    int32_t width;
    int32_t frameRate;      /* truncated towards zero: 29.97 gives 29 */
    int32_t videoBitRate;
    int32_t sampleRate;     /* -1 in a file without audio */
    int32_t channels;       /* only the low 16 bits are written */
    int32_t audioBitRate;
    int32_t rotation;       /* display rotation, degrees clockwise: 0, 90, 180 or 270; pictures stay as stored */
    double durationMs;      /* 0.0 when unknown */
    int32_t videoCodec;     /* 0: H.264 */
    int32_t audioCodec;     /* 1: AAC (also in a file without audio) */
} TessaloMediaInfo;

/* One stretch to keep, pts in ms on the index's timeline, end inclusive. */
typedef struct EditRange {
    int64_t start;
    int64_t end;
} EditRange;

/* A pair of source times to translate to the output's timeline. */
typedef struct EditOffset {
    int64_t first;
    int64_t second;
} EditOffset;

#ifdef __cplusplus
static_assert(sizeof(TessaloMediaInfo) == 48, "TessaloMediaInfo is 48 bytes");
static_assert(offsetof(TessaloMediaInfo, sampleRate) == 16, "sampleRate at 16");
static_assert(offsetof(TessaloMediaInfo, rotation) == 28, "rotation at 28");
static_assert(offsetof(TessaloMediaInfo, durationMs) == 32, "durationMs at 32");
static_assert(offsetof(TessaloMediaInfo, audioCodec) == 44, "audioCodec at 44");
static_assert(sizeof(EditRange) == 16 && sizeof(EditOffset) == 16, "16-byte records");
#else
_Static_assert(sizeof(TessaloMediaInfo) == 48, "TessaloMediaInfo is 48 bytes");
_Static_assert(offsetof(TessaloMediaInfo, sampleRate) == 16, "sampleRate at 16");
_Static_assert(offsetof(TessaloMediaInfo, rotation) == 28, "rotation at 28");
_Static_assert(offsetof(TessaloMediaInfo, durationMs) == 32, "durationMs at 32");
_Static_assert(offsetof(TessaloMediaInfo, audioCodec) == 44, "audioCodec at 44");
_Static_assert(sizeof(EditRange) == 16 && sizeof(EditOffset) == 16, "16-byte records");
#endif

TESSALO_EXPORT void* TSL_CreateTessalo(void* user, TessaloCallback callback);
TESSALO_EXPORT void TSL_DestoryTessalo(void* handle);
TESSALO_EXPORT bool TSL_StartPic(void* handle, const char* path);
TESSALO_EXPORT void TSL_GetMediaInfo(void* handle, TessaloMediaInfo* info);
TESSALO_EXPORT bool TSL_GetPicByPts(void* handle, const int64_t* pts, int32_t count);
TESSALO_EXPORT int32_t TSL_GetOnePicSize(void* handle);
TESSALO_EXPORT int32_t TSL_GetPic(void* handle, uint8_t* buffer, int64_t* pts, uint8_t* isKey);
TESSALO_EXPORT int64_t TSL_GetPicPts(void* handle);
TESSALO_EXPORT void TSL_SetOutputPicFormat(void* handle, int32_t format);
TESSALO_EXPORT int32_t TSL_GetKeyPtsCount(void* handle);
TESSALO_EXPORT int32_t TSL_GetKeyPts(void* handle, int64_t* out);
TESSALO_EXPORT int32_t TSL_GetPtsCountByKeyPts(void* handle, int64_t keyPts);
TESSALO_EXPORT int32_t TSL_GetPtsByKeyPts(void* handle, int64_t keyPts, int64_t* out);
TESSALO_EXPORT bool TSL_CutFile(void* handle, const char* src, const char* dst,
                                const EditRange* ranges, int32_t rangeCount,
                                const EditOffset* offsets, int32_t offsetCount, int32_t kind);
TESSALO_EXPORT void TSL_CancelFile(void* handle);
TESSALO_EXPORT bool TSL_GetEditOffsetPts(void* handle, EditOffset* out, int32_t count,
                                         int32_t* outCount);

#ifdef __cplusplus
}
#endif

#endif /* TESSALO_H */
