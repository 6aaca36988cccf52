// Picture output: placeholder body until the conversion lands.
#include "instance/TessaloImpl.h"

namespace Morvel_Tessalo {

void convertPicture(const uint8_t*, int32_t, int32_t, int32_t, std::unique_ptr<uint8_t[]>*, int32_t*, int32_t) {}

}  // namespace Morvel_Tessalo
