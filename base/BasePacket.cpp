#include "base/BasePacket.h"

namespace Morvel_Tessalo {

bool BasePacket::replaceBlock(uint32_t capacity) {
    block.reset();
    block.reset(static_cast<uint8_t*>(av_malloc(capacity)));
    data = block.get();
    return data != nullptr;
}

}  // namespace Morvel_Tessalo
