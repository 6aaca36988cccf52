#include "edit/FileEditer.h"

// Placeholder bodies until the cut engine lands: every cut is refused.
namespace Morvel_Tessalo {

FileEditer::FileEditer(EditerNotifyCallback callback, void* context)
    : notifyCallback(callback), notifyContext(context) {}
FileEditer::~FileEditer() = default;
bool FileEditer::setFrameIndex(std::vector<FrameGroup*>*, std::vector<FrameRecord*>*, const VideoTrackInfo*,
                               const AudioTrackInfo*) {
    return true;
}
void FileEditer::clearFrameIndex() {}
bool FileEditer::cut(const char*, const char*, const EditRange*, int32_t, const EditOffset*, int32_t, int32_t) {
    return false;
}
void FileEditer::stopCut() {}
void FileEditer::releaseCut() {}
bool FileEditer::getEditOffsetPts(EditOffset*, int32_t, int32_t*) { return false; }
void FileEditer::onMuxComplete() {}

}  // namespace Morvel_Tessalo
