// Forwarding of commands to the gateway's local job manager.
#include "common/log.h"
#include "jsonmsg/processjsonmsg.h"
#include "platintf/hgprocessplatintf.h"

int SendReqOrEventToJM(unsigned port, const char *msg, char *replybuf, unsigned timeout) {
    int len = HGSendUdpRequest_big(0, qdq::kJobManagerAddr, port, msg, replybuf, timeout);
    return len < 0 ? -1 : len;
}
