// HGProcessPlatJsonMsg: the one entry through which every command from the
// platforms and the local request channel becomes a reply.
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <new>

#include "common/abi_guard.h"
#include "common/clock.h"
#include "common/json.h"
#include "common/log.h"
#include "common/thread.h"
#include "jsonmsg/cmd_json.h"
#include "jsonmsg/local_orders.h"
#include "jsonmsg/processjsonmsg.h"
#include "platintf/reply_process.h"

namespace {

using qdq::JsonPtr;

constexpr int kPlatLocalUdp = QDQ_PLAT_LOCALUDP;
constexpr std::size_t kMethodSize = 32;

// What a routed handler leaves for the dispatcher to do.
enum class Next { reply, forward };

template <void (*Handler)(cJSON *)>
Next reply_with(cJSON *object) {
    Handler(object);
    return Next::reply;
}

// "SetPlug-inParameterValues" reaches the table only in theory (platforms
// have it forwarded before, the local channel treats it as an ability
// message); the branch is kept with its rule: forward while the plugin has
// an execution id.
Next set_parameter_values(cJSON *object) {
    const char *name = qdq::cmd_text(object, "Plugin_Name");
    const char *version = qdq::cmd_text(object, "Version");
    char euid[64] = "";
    if (HgGetEuid(name, version, euid) == 0) return Next::forward;
    HgProcessSetPluginParameterValues(object);
    return Next::reply;
}

struct Route {
    const char *method;
    Next (*handler)(cJSON *object);
};

// Commands of the plugin platform and the local channel.
constexpr Route kRoutes[] = {
    {"Disconnect", reply_with<HGProcessRequestPluginDis>},
    {"Install", reply_with<HgProcessPluginInstall>},
    {"Install_query", reply_with<HgProcessPluginQuery>},
    {"Install_cancel", reply_with<HgProcessPluginInstallCancel>},
    {"UnInstall", reply_with<HgProcessPluginUniInstall>},
    {"Stop", reply_with<HgProcessPluginStop>},
    {"Run", reply_with<HgProcessPluginRun>},
    {"FactoryPlugin", reply_with<HgProcessFactoryPlugin>},
    {"SetPlug-inParameterValues", set_parameter_values},
    {"ListPlugin", reply_with<HgProcessListPlugin>},
};

struct ManageRoute {
    const char *method;
    int (*handler)(cJSON *object);
    bool keep_reply;  // the reply is kept in platreplybuf for resending
};

// Orders of the manage platform that wait for its acknowledgement. Only
// the "RequestPlug-in" reply is kept; a resend after "RequestDistri" finds
// nothing to send.
constexpr ManageRoute kManageRoutes[] = {
    {"RequestPlug-in", HGProcessRequestPluginMsg, true},
    {"RequestDistri", HGProcessRequestDistri, false},
};

// Prints the reply into a malloc'ed text for the caller. Returns the bytes
// handed out, terminator counted (0 when nothing could be handed out).
int hand_out(const cJSON *reply, char **out, bool keep) {
    qdq::CText text(reply ? cJSON_Print(reply) : nullptr);
    if (!text) return 0;
    const std::size_t len = std::strlen(text.get());
    // The kept copy is bounded to the buffer; a longer reply is cut.
    if (keep) qdq::copy_field(platreplybuf, sizeof platreplybuf, text.get());
    QDQ_LOG("HGProcessJsonMsg end\n");
    if (out == nullptr) return 0;
    char *copy = static_cast<char *>(std::malloc(len + 1));
    if (copy == nullptr) return 0;
    std::memcpy(copy, text.get(), len + 1);
    *out = copy;
    return static_cast<int>(len + 1);
}

int hand_out_result(int result, char **out) {
    JsonPtr reply(cJSON_CreateObject());
    if (!reply) return 0;
    cJSON_AddNumberToObject(reply.get(), "Result", result);
    return hand_out(reply.get(), out, false);
}

// The manage platform's answer to a request the gateway accepted.
void acknowledge(int r) {
    platresendnum = 0;
    AppTimerDestory(qdq::kTimerResendReply);
    const int pending = manageplatinfo.nexttimer;
    if (r == 1 && pending != 0 && srvreplyflag == 1) AppTimerCreate(1, pending, 0, QdTimeoutHandle);
    if (r == -1) qdq::connect_soon(qdq::kTimerConnectManage, 1);
    srvreplyflag = 0;
    manageplatinfo.nexttimer = 0;
}

// An object carrying "Result" is a platform's reply, never a command.
void platform_reply(const char *msg, const cJSON *result) {
    const int r = GetIntValueFromJson(result);
    QDQ_LOG("plat return %d, srvreplyflag:%d", r, srvreplyflag);
    if (r == 0 || r == -3 || r == -5)
        ProcessHeartBeatReply(msg, QDQ_PLAT_MANAGE);
    else if (r == 1 || r == -1)
        acknowledge(r);
}

// Starts the push of one local event. The thread owns its copy of the text.
// False when no thread took it (out of memory, or the cap on live event
// threads reached): the event is refused rather than queued.
bool start_event(const char *event) {
    char *copy = strdup(event);
    if (copy == nullptr) return false;
    if (qdq::start_worker(qdq::Work::event, PorcessEventInform, copy) != 0) {
        std::free(copy);
        return false;
    }
    qdq::sleep_for(1);
    return true;
}

// The job manager's answer goes back as it stands, counted without a NUL.
int forward(const char *msg, char **out) {
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[qdq::kJobManagerReplySize + 1]);
    if (!buffer) return 0;
    const int len = SendReqOrEventToJM(qdq::kJobManagerPort, msg, buffer.get(), qdq::kJobManagerWait);
    if (len == -1) return hand_out_result(qdq::kResultJobManagerSilent, out);
    // An empty answer has nothing to send (0 = no reply).
    if (len == 0 || out == nullptr) return 0;
    char *copy = static_cast<char *>(std::malloc(static_cast<std::size_t>(len) + 1));
    if (copy == nullptr) return 0;
    std::memcpy(copy, buffer.get(), static_cast<std::size_t>(len));
    copy[len] = '\0';
    *out = copy;
    return len;
}

int dispatch(const char *msg, char **out, int *plattype) {
    const int type = plattype ? *plattype : 0;
    QDQ_LOG("HGProcessJsonMsg start! plattype:%d \n", type);
    if (msg == nullptr) {
        QDQ_LOG("recvbuf is NULL!\n");
        return hand_out_result(qdq::kResultFailed, out);
    }
    const char *end = nullptr;
    JsonPtr object(cJSON_ParseWithOpts(msg, &end, 0));
    if (!object) {
        QDQ_LOG("parse error, Error before: [%s]\n", end ? end : "");
        return hand_out_result(qdq::kResultFailed, out);
    }
    cJSON *obj = object.get();

    const cJSON *result = cJSON_GetObjectItemCaseSensitive(obj, "Result");
    if (result != nullptr && type == QDQ_PLAT_MANAGE) {
        platform_reply(msg, result);
        return 0;
    }
    if (result != nullptr && type == QDQ_PLAT_PLUGIN) return 0;

    const cJSON *method_item = cJSON_GetObjectItemCaseSensitive(obj, "RPCMethod");
    if (method_item == nullptr) {
        QDQ_LOG("can not find RPCMethod object!\n");
        return hand_out_result(qdq::kResultFailed, out);
    }
    char method[kMethodSize];
    qdq::copy_field(method, sizeof method, cJSON_IsString(method_item) ? method_item->valuestring : "");

    bool to_job_manager = false;
    if (std::strcmp(method, "Post") == 0) {
        to_job_manager = isOsgiPlugParamSet(obj) == 0;
    } else if (std::strcmp(method, "EVENT_INFOR") == 0 && type == kPlatLocalUdp) {
        const char *event = qdq::cmd_text(obj, "Event");
        if (event != nullptr && !start_event(event)) return hand_out_result(qdq::kResultFailed, out);
        return hand_out_result(0, out);
    } else if (std::strcmp(method, "SetPlug-inParameterValues") == 0) {
        to_job_manager = true;
    }
    if (to_job_manager && type != kPlatLocalUdp) {
        object.reset();  // not kept through the job manager's wait
        return forward(msg, out);
    }

    if (method[0] == '\0') {
        QDQ_LOG("RPCMethod value is null!\n");
        return hand_out_result(qdq::kResultFailed, out);
    }
    bool keep = false;
    if (std::strcmp(method, "Post1") == 0 || std::strcmp(method, "Post") == 0 ||
        (std::strcmp(method, "SetPlug-inParameterValues") == 0 && type == kPlatLocalUdp)) {
        if (HGProcessAbilityMsg(obj, plattype) == -1) {
            QDQ_LOG("HGProcessAbilityMsg return -1");
            return QDQ_ABILITY_FAILED;
        }
    } else if (type == QDQ_PLAT_MANAGE) {
        for (const ManageRoute &r : kManageRoutes) {
            if (std::strcmp(method, r.method) != 0) continue;
            if (r.handler(obj) == 0) {
                srvreplyflag = 1;
                keep = r.keep_reply;
                std::memset(platreplybuf, 0, sizeof platreplybuf);
                platresendnum = 0;
                AppTimerCreate(5, qdq::kTimerResendReply, 0, QdTimeoutHandle);
            }
            break;
        }
    } else if (qdq::refuse_local_order(obj, method, type)) {
        // The refusal is in the object; nothing was acted on.
    } else {
        for (const Route &r : kRoutes) {
            if (std::strcmp(method, r.method) != 0) continue;
            if (r.handler(obj) == Next::forward) {
                object.reset();
                return forward(msg, out);
            }
            break;
        }
    }
    return hand_out(obj, out, keep);
}

}  // namespace

extern "C" QDQ_API int HGProcessPlatJsonMsg(const char *msg, char **out, int *plattype) {
    if (out != nullptr) *out = nullptr;
    return qdq::guard_entry("HGProcessJsonMsg failed", 0, [&] { return dispatch(msg, out, plattype); });
}
