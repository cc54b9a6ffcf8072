// Ability commands: a Base64-packed JSON command executed by the host and
// answered Base64-packed.
#include <cstring>

#include "common/host.h"
#include "common/json.h"
#include "common/log.h"
#include "jsonmsg/cmd_json.h"
#include "jsonmsg/processjsonmsg.h"

namespace {

// Longest "Parameter" text taken (its Base64 decodes to about 7.5 KiB).
constexpr std::size_t kParameterMax = 10220;

// A refused ability command: the whole command becomes {"Result": -1}.
int refuse(cJSON *object) {
    qdq::cmd_refuse(object, qdq::kResultFailed);
    return 0;
}

}  // namespace

int HGProcessAbilityMsg(cJSON *object, int *plattype) {
    const char *parameter = qdq::cmd_text(object, "Parameter");
    if (parameter == nullptr) {
        QDQ_LOG("before decode, parameter json is null");
        return refuse(object);
    }
    if (strnlen(parameter, kParameterMax + 1) > kParameterMax) {
        QDQ_LOG("before decode, parameter too long");
        return refuse(object);
    }
    qdq::CText decoded(base64_decode(parameter));
    if (!decoded) {
        QDQ_LOG("decodestring is NULL!\n");
        return refuse(object);
    }
    QDQ_LOG("decodestring:\n%s\n", decoded.get());

    const char *end = nullptr;
    qdq::JsonPtr inner(cJSON_ParseWithOpts(decoded.get(), &end, 0));
    if (!inner) {
        QDQ_LOG("parameter is parse failed\n");
        return refuse(object);
    }
    qdq::cmd_delete(object, {"Parameter"});
    const char *cmdtype = qdq::cmd_text(inner.get(), "CmdType");
    if (!cJSON_IsObject(inner.get()) || cmdtype == nullptr || cmdtype[0] == '\0') {
        QDQ_LOG("can not find CmdType object!\n");
        return refuse(object);
    }

    if (quickevcb.ability != nullptr) {
        int type = plattype ? *plattype : 0;
        quickevcb.ability(inner.get(), plattype ? plattype : &type);
    }
    qdq::cmd_result(object, 0);
    qdq::cmd_delete(object, {"RPCMethod", "Plugin_Name", "Version"});

    qdq::CText answer(cJSON_Print(inner.get()));
    if (!answer) return -1;
    QDQ_LOG("--- reply before encode:%s\n", answer.get());
    // An answer that prints as nothing encodes to nothing: send "".
    qdq::CText encoded(answer.get()[0] != '\0' ? base64_encode(answer.get()) : nullptr);
    if (!encoded && answer.get()[0] != '\0') return -1;
    qdq::cmd_set_text(object, "return_Parameter", encoded ? encoded.get() : "");
    QDQ_LOG("HGProcessAbilityMsg end\n");
    return 0;
}
