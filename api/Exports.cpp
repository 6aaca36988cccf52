// The sixteen exports. Until the instance lands, every call answers as for a
// null handle and no instance can be created.
#include "api/tessalo.h"

extern "C" {

void* TSL_CreateTessalo(void*, TessaloCallback) { return nullptr; }
void TSL_DestoryTessalo(void*) {}
bool TSL_StartPic(void*, const char*) { return false; }
void TSL_GetMediaInfo(void*, TessaloMediaInfo*) {}
bool TSL_GetPicByPts(void*, const int64_t*, int32_t) { return false; }
int32_t TSL_GetOnePicSize(void*) { return -1; }
int32_t TSL_GetPic(void*, uint8_t*, int64_t*, uint8_t*) { return -1; }
int64_t TSL_GetPicPts(void*) { return -1; }
void TSL_SetOutputPicFormat(void*, int32_t) {}
int32_t TSL_GetKeyPtsCount(void*) { return -1; }
int32_t TSL_GetKeyPts(void*, int64_t*) { return -1; }
int32_t TSL_GetPtsCountByKeyPts(void*, int64_t) { return -1; }
int32_t TSL_GetPtsByKeyPts(void*, int64_t, int64_t*) { return -1; }
bool TSL_CutFile(void*, const char*, const char*, const EditRange*, int32_t, const EditOffset*, int32_t, int32_t) {
    return false;
}
void TSL_CancelFile(void*) {}
bool TSL_GetEditOffsetPts(void*, EditOffset*, int32_t, int32_t*) { return false; }
}
