// The process-wide session records and their accessors.
#include <cstdio>
#include <cstring>

#include "common/log.h"
#include "qdquick/qdq_layout.h"
#include "qdquick/qdquick.h"

extern "C" {
QDQ_API platinfo cubeplatinfo;
QDQ_API platinfo manageplatinfo;
QDQ_API platinfo pluginplatinfo;
QDQ_API struct deviceinfo deviceinfo;
QDQ_API serveraddr messageserver;
QDQ_API serveraddr updateserver;
QDQ_API pthread_t platregtid;
QDQ_API int srvreplyflag;
QDQ_API int platresendnum;
QDQ_API char platreplybuf[128];
QDQ_API char manageplatUrl[512];
QDQ_API char devMac[512];

QDQ_API platinfo *getPlatInfo(int plattype) {
    switch (plattype) {
    case QDQ_PLAT_CUBE: return &cubeplatinfo;
    case QDQ_PLAT_MANAGE: return &manageplatinfo;
    case QDQ_PLAT_PLUGIN: return &pluginplatinfo;
    default: return nullptr;
    }
}

QDQ_API serveraddr *getPlatAddr(int kind) {
    return kind == QDQ_PLAT_MSGSERVER ? &messageserver : nullptr;
}

QDQ_API struct deviceinfo *getSdkDevInfo(void) { return &deviceinfo; }

QDQ_API void GetMacInSn(const char *sn, const char *marker) {
    if (sn == nullptr) return;
    const size_t cap = sizeof deviceinfo.mac;
    // An empty marker occurs at the start of any serial.
    if (marker != nullptr) {
        const char *at = std::strstr(sn, marker);
        if (at != nullptr) std::snprintf(deviceinfo.mac, cap, "%s", at);
    }
    if (deviceinfo.mac[0] == '\0') {
        size_t len = std::strlen(sn);
        std::snprintf(deviceinfo.mac, cap, "%s", len <= 12 ? sn : sn + (len - 12));
    }
    QDQ_LOG("####mac:%s\n", deviceinfo.mac);
}
}
