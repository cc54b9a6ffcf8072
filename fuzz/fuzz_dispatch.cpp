// The command dispatcher, HGProcessPlatJsonMsg, for every source: the first
// byte picks the platform type (2 manage, 3 plugin, 4 local TCP, 5 local
// UDP), the rest is the message text.
#include <cjson/cJSON.h>

#include <cstring>

#include "common/json.h"
#include "support/harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const qdq_fuzz::Input input;
    if (size < 1) return 0;
    static const int kTypes[] = {QDQ_PLAT_MANAGE, QDQ_PLAT_PLUGIN, QDQ_PLAT_LOCALTCP, QDQ_PLAT_LOCALUDP};
    int type = kTypes[data[0] % 4];
    const std::string msg = qdq_fuzz::text(data + 1, size - 1);

    qdq_fuzz::reset();
    char *out = nullptr;
    const int n = HGProcessPlatJsonMsg(msg.c_str(), &out, &type);
    qdq::CText reply(out);
    if (n > 0 && reply) {
        // A reply of the dispatcher's own counts its NUL; only a job
        // manager's answer, passed on as it came, does not.
        const size_t len = std::strlen(reply.get());
        if (static_cast<size_t>(n) != len + 1 && static_cast<size_t>(n) != len)
            qdq_fuzz::fail("reply length and count disagree");
        if (static_cast<size_t>(n) == len + 1) {
            qdq::JsonPtr parsed(cJSON_Parse(reply.get()));
            if (!cJSON_IsObject(parsed.get())) qdq_fuzz::fail("reply is not a JSON object:", reply.get());
        }
    } else if (reply) {
        qdq_fuzz::fail("a reply handed out with a count of", std::to_string(n));
    }
    for (const platinfo *rec : {&cubeplatinfo, &manageplatinfo, &pluginplatinfo}) qdq_fuzz::check_record(*rec, "record");
    if (strnlen(platreplybuf, sizeof platreplybuf) == sizeof platreplybuf) qdq_fuzz::fail("platreplybuf unterminated");
    qdq_fuzz::settle();
    return 0;
}
