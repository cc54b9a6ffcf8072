// The gateway's web pages are not fed from this library; the hooks stay so
// that hosts built against them keep linking.
#include "qdquick/qdquick.h"

extern "C" QDQ_API void SendAppStoreTokenInfoToWeb(void) {}
extern "C" QDQ_API void SendAppStoreUrlInfoToWeb(void) {}
extern "C" QDQ_API void SendPluginUrlInfoToWeb(void) {}
extern "C" QDQ_API void SendRequestPluginToWeb(void) {}
extern "C" QDQ_API void SendPluginRespInfoToWeb(void) {}
