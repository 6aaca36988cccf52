// Picture retrieval: placeholder bodies until the picture path lands. Every
// request fails before it touches the file.
#include "instance/TessaloImpl.h"

namespace Morvel_Tessalo {

bool TessaloImpl::openDecoder(int32_t, uint8_t*) { return false; }

void TessaloImpl::locateStart() {
    keysOnly = false;
    allDelivered = false;
    firstDelivered = false;
    startGroup = 0;
}

bool TessaloImpl::fetchPictures() {
    notifyHost(kHostEventError);
    return false;
}

void TessaloImpl::receivePicture() {}

}  // namespace Morvel_Tessalo
