#include "base/BasePacket.h"

extern "C" {
#include <libavutil/mem.h>
}

namespace Morvel_Tessalo {

// Blocks come from av_malloc so that they carry FFmpeg's alignment.
BasePacket::~BasePacket() {
    if (data) av_free(data);
}

}  // namespace Morvel_Tessalo
