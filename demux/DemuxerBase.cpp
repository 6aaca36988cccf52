#include "demux/DemuxerBase.h"

namespace Morvel_Tessalo {

void DemuxerBase::init(DemuxerPacketCallback packet, DemuxerEventCallback event, void* user) {
    packetCallback = packet;
    eventCallback = event;
    userData = user;
}

int DemuxerBase::notifyPacket(int kind, DemuxerPacket* packet) {
    return packetCallback ? packetCallback(kind, packet, userData) : 1;
}

void DemuxerBase::notifyEvent(int kind, int detail, void* data) {
    if (eventCallback) eventCallback(kind, detail, data, userData);
}

}  // namespace Morvel_Tessalo
