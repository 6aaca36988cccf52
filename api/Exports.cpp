// The sixteen exports: each tests its handle and forwards to the instance,
// its frame index or its cut engine.
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "api/tessalo.h"
#include "base/Log.h"
#include "edit/FileEditer.h"
#include "instance/TessaloImpl.h"

using Morvel_Tessalo::FileEditer;
using Morvel_Tessalo::TessaloImpl;

namespace {

TessaloImpl* instanceOf(void* handle) { return static_cast<TessaloImpl*>(handle); }

// The cut engine is made with the instance; without it the cut exports
// answer as for a null handle.
FileEditer* editorOf(void* handle) { return handle ? instanceOf(handle)->editor.get() : nullptr; }

}  // namespace

extern "C" {

void* TSL_CreateTessalo(void* user, TessaloCallback callback) {
    if (!callback) return nullptr;
    installFFmpegLogSink();
    // The constructor itself does not throw (its one allocation is nothrow),
    // but nothing may escape to the host, whatever a member does.
    try {
        return new (std::nothrow) TessaloImpl(user, callback);
    } catch (...) {
        return nullptr;
    }
}

void TSL_DestoryTessalo(void* handle) {
    // From inside one of its own callbacks the instance would wait for the
    // very thread that runs the callback: refused, and the handle lives on.
    if (!handle || instanceOf(handle)->insideCallback()) return;
    // Taken back from the host: the instance ends with this scope.
    std::unique_ptr<TessaloImpl> instance(instanceOf(handle));
}

bool TSL_StartPic(void* handle, const char* path) {
    // A null path is refused: there is nothing to copy.
    if (!handle || !path) return false;
    return instanceOf(handle)->startPic(path);
}

void TSL_GetMediaInfo(void* handle, TessaloMediaInfo* info) {
    if (!handle || !info) return;
    std::memcpy(info, &instanceOf(handle)->mediaInfo, sizeof(TessaloMediaInfo));
}

bool TSL_GetPicByPts(void* handle, const int64_t* pts, int32_t count) {
    if (!handle) return false;
    // An empty (or missing) list has nothing to look for, and the picture path
    // must never read an empty list: refused before any worker is touched.
    if (!pts || count < 1) return false;
    return instanceOf(handle)->getPicByPts(pts, count);
}

int32_t TSL_GetOnePicSize(void* handle) {
    if (!handle) return -1;
    return instanceOf(handle)->outputPictureSize;
}

int32_t TSL_GetPic(void* handle, uint8_t* buffer, int64_t* pts, uint8_t* isKey) {
    if (!handle || !buffer) return -1;
    TessaloImpl* instance = instanceOf(handle);
    if (pts) *pts = instance->currentPts;
    if (isKey) *isKey = instance->currentKey ? 1 : 0;
    if (!instance->outputPicture || instance->outputPictureSize <= 0) return 0;
    std::memcpy(buffer, instance->outputPicture.get(), static_cast<size_t>(instance->outputPictureSize));
    return instance->outputPictureSize;
}

int64_t TSL_GetPicPts(void* handle) {
    if (!handle) return -1;
    return instanceOf(handle)->currentPts;
}

void TSL_SetOutputPicFormat(void* handle, int32_t format) {
    if (!handle) return;
    TessaloImpl* instance = instanceOf(handle);
    std::lock_guard<std::mutex> lock(instance->stateMutex);
    if (instance->state == Morvel_Tessalo::kStateStopped) instance->outputFormat = format;
}

int32_t TSL_GetKeyPtsCount(void* handle) {
    if (!handle) return -1;
    return static_cast<int32_t>(instanceOf(handle)->sortedKeyGroups.size());
}

int32_t TSL_GetKeyPts(void* handle, int64_t* out) {
    if (!handle) return -1;
    return instanceOf(handle)->getKeyPts(out);
}

int32_t TSL_GetPtsCountByKeyPts(void* handle, int64_t keyPts) {
    if (!handle) return -1;
    return instanceOf(handle)->getPtsCountByKeyPts(keyPts);
}

int32_t TSL_GetPtsByKeyPts(void* handle, int64_t keyPts, int64_t* out) {
    if (!handle) return -1;
    return instanceOf(handle)->getPtsByKeyPts(keyPts, out);
}

bool TSL_CutFile(void* handle, const char* src, const char* dst, const EditRange* ranges, int32_t rangeCount,
                 const EditOffset* offsets, int32_t offsetCount, int32_t kind) {
    FileEditer* editor = editorOf(handle);
    if (!editor) return false;
    return editor->cut(src, dst, ranges, rangeCount, offsets, offsetCount, kind);
}

void TSL_CancelFile(void* handle) {
    FileEditer* editor = editorOf(handle);
    if (!editor) return;
    editor->stopCut();
    editor->releaseCut();
}

bool TSL_GetEditOffsetPts(void* handle, EditOffset* out, int32_t count, int32_t* outCount) {
    FileEditer* editor = editorOf(handle);
    if (!editor) return false;
    // A negative count or a missing outCount is as unusable as a count of 0.
    if (count < 1 || !out || !outCount) return false;
    return editor->getEditOffsetPts(out, count, outCount);
}

}  // extern "C"
