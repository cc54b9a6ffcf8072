// Driving HGProcessPlatJsonMsg in tests: the reply with its parsed object,
// and the timer table without a tick (timers are armed, never fired).
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "common/host.h"
#include "common/ids.h"
#include "common/json.h"
#include "common/log.h"
#include "common/timer.h"
#include "net_helpers.h"
#include "platform_double.h"

namespace dt {

const std::string kFailed = "{\n\t\"Result\":\t-1\n}";

struct Reply {
    int ret = 0;
    std::string text;  // what was handed out ("" for none)
    qdq::JsonPtr json;
    const cJSON *get(const char *key) const { return cJSON_GetObjectItemCaseSensitive(json.get(), key); }
    int result() const { return cJSON_IsNumber(get("Result")) ? get("Result")->valueint : 12345; }
};

inline Reply run(const std::string &msg, int type, bool null_msg = false) {
    Reply r;
    char *out = nullptr;
    r.ret = HGProcessPlatJsonMsg(null_msg ? nullptr : msg.c_str(), &out, &type);
    if (out != nullptr) r.text = out, free(out);
    r.json.reset(cJSON_Parse(r.text.c_str()));
    return r;
}

// Seconds left on timer `id`, or -1 when it is not armed.
inline int armed(int id) {
    qdq::MutexLock guard(timerlock);
    int i = qdq::timer_index(id);
    return i < 0 ? -1 : g_timer[i].left_time;
}

struct Dispatch : ::testing::Test {
    void SetUp() override {
        timerflag = 1;  // no tick thread
        AppInitTimerModule();
        for (platinfo *p : {&manageplatinfo, &pluginplatinfo, &cubeplatinfo}) memset(p, 0, sizeof *p);
        memset(&messageserver, 0, sizeof messageserver), memset(platreplybuf, 0, sizeof platreplybuf);
        srvreplyflag = platresendnum = 0;
        qdq_test::platform().reset();
    }
};

}  // namespace dt
