#pragma once
// The last step before the host: a decoded picture, whatever its layout, in
// the form the host chose. Runs on the worker thread.
#include <cstdint>
#include <memory>

#include "base/BasePacket.h"
#include "base/FFmpegHolders.h"

namespace Morvel_Tessalo {

// Writes `picture` into `*outputPicture` in the host's form: for format 0 the
// 8-bit I420 block (limited range, the picture's own matrix), for any other
// format 24-bit pixels, blue-green-red, bottom row first, through the
// picture's matrix and range. The block follows the picture's size and is
// reused while that stays. An 8-bit 4:2:0 picture is copied as it is (limited
// range) or turned into BGR by libyuv (BT.601); every other picture goes
// through libswscale, whose context `scaler` keeps from one picture to the
// next. A picture whose layout does not fit its block leaves the output as
// it was.
void convertPicture(const VideoPacket& picture, ScalerHolder* scaler, std::unique_ptr<uint8_t[]>* outputPicture,
                    int32_t* outputPictureSize, int32_t outputFormat);

}  // namespace Morvel_Tessalo
