// The ability path: the fuzzer writes the command inside "Parameter" (the
// decoded text); the harness packs it the way a platform does - Base64 in a
// "Post", "Post1" or local "SetPlug-inParameterValues" envelope - so every
// input reaches the inner parse, the host callback and the packed answer.
// The first byte picks the envelope and source; with its top bit set the
// rest is sent as the "Parameter" text itself, unencoded.
#include <cjson/cJSON.h>

#include <cstring>

#include "common/json.h"
#include "support/harness.h"

namespace {

struct Envelope {
    const char *method;
    int plattype;
};
constexpr Envelope kEnvelopes[] = {
    {"Post", QDQ_PLAT_LOCALUDP}, {"Post1", QDQ_PLAT_MANAGE}, {"SetPlug-inParameterValues", QDQ_PLAT_LOCALUDP},
    {"Post", QDQ_PLAT_PLUGIN},   {"Post1", QDQ_PLAT_LOCALTCP},
};

std::string member_text(const cJSON *obj, const char *key) {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(obj, key);
    return cJSON_IsString(item) ? item->valuestring : "";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const qdq_fuzz::Input input;
    if (size < 1) return 0;
    const Envelope &env = kEnvelopes[(data[0] & 0x7f) % (sizeof kEnvelopes / sizeof kEnvelopes[0])];
    const bool raw = (data[0] & 0x80) != 0;
    const std::string inner = qdq_fuzz::text(data + 1, size - 1);

    qdq::JsonPtr command(cJSON_CreateObject());
    cJSON_AddStringToObject(command.get(), "RPCMethod", env.method);
    cJSON_AddStringToObject(command.get(), "Plugin_Name", "p");
    cJSON_AddStringToObject(command.get(), "ID", "7");
    if (raw) {
        cJSON_AddStringToObject(command.get(), "Parameter", inner.c_str());
    } else {
        qdq::CText packed(base64_encode(inner.c_str()));
        cJSON_AddStringToObject(command.get(), "Parameter", packed ? packed.get() : "");
    }
    qdq::CText msg(cJSON_PrintUnformatted(command.get()));
    if (!msg) return 0;

    qdq_fuzz::reset();
    int type = env.plattype;
    char *out = nullptr;
    const int n = HGProcessPlatJsonMsg(msg.get(), &out, &type);
    qdq::CText reply(out);
    if (n <= 0) {
        if (reply) qdq_fuzz::fail("a reply without a count");
        qdq_fuzz::settle();
        return 0;
    }
    qdq::JsonPtr answer(cJSON_Parse(reply ? reply.get() : ""));
    if (!cJSON_IsObject(answer.get())) qdq_fuzz::fail("ability reply is not an object");
    const cJSON *result = cJSON_GetObjectItemCaseSensitive(answer.get(), "Result");
    if (!cJSON_IsNumber(result)) qdq_fuzz::fail("ability reply without Result");
    if (result->valueint == 0) {
        // Accepted: the packed answer is the host's object, "CmdType" and
        // the callback's own key in it; the request keys are gone, "ID" kept.
        qdq::CText unpacked(base64_decode(member_text(answer.get(), "return_Parameter").c_str()));
        qdq::JsonPtr host(cJSON_Parse(unpacked ? unpacked.get() : ""));
        if (!cJSON_IsNumber(cJSON_GetObjectItemCaseSensitive(host.get(), "Status")) ||
            member_text(host.get(), "CmdType").empty())
            qdq_fuzz::fail("packed answer is not the host's object");
        if (cJSON_HasObjectItem(answer.get(), "Parameter") || cJSON_HasObjectItem(answer.get(), "RPCMethod") ||
            member_text(answer.get(), "ID") != "7")
            qdq_fuzz::fail("ability reply keys wrong:", reply.get());
    }
    qdq_fuzz::settle();
    return 0;
}
