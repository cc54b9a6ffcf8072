// The platforms' answers: Boot, Register and Heartbeat reply processing and
// the message server's push reply. The first byte picks the reply kind and
// platform, the rest is the reply text; an empty heartbeat reply stands for
// none at all (a time-out).
#include <cstring>

#include "platintf/push.h"
#include "platintf/reply_process.h"
#include "support/harness.h"
#include "support/terminated.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const qdq_fuzz::Input input;
    if (size < 1) return 0;
    const std::string reply = qdq_fuzz::text(data + 1, size - 1);
    const char *text = reply.c_str();
    const bool timeout = reply.empty();

    qdq_fuzz::reset();
    switch (data[0] % 8) {
    case 0: ProcessBootReply(text, QDQ_PLAT_CUBE); break;
    case 1: ProcessBootReply(text, QDQ_PLAT_MANAGE); break;
    case 2: ProcessBootReply(text, QDQ_PLAT_PLUGIN); break;
    case 3: ProcessRegReply(text, &manageplatinfo); break;
    case 4: ProcessRegReply(text, &cubeplatinfo); break;
    case 5: ProcessHeartBeatReply(timeout ? nullptr : text, QDQ_PLAT_MANAGE); break;
    case 6: ProcessHeartBeatReply(timeout ? nullptr : text, QDQ_PLAT_PLUGIN); break;
    default: HGProcessPushReply(text); break;
    }
    qdq_fuzz::check_record(cubeplatinfo, "cube");
    qdq_fuzz::check_record(manageplatinfo, "manage");
    qdq_fuzz::check_record(pluginplatinfo, "plugin");
    qdq_fuzz::check_text(messageserver.addr, "messageserver.addr");
    qdq_fuzz::check_text(updateserver.addr, "updateserver.addr");
    return 0;
}
