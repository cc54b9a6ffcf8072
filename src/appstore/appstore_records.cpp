// The app store results the host reads.
#include "qdquick/qdquick.h"

extern "C" {
QDQ_API apptokeninfo appStoreTokenInfo;
QDQ_API appurlinfo appStoreUrlInfo;
QDQ_API char gToken[1024];
QDQ_API int timep;
QDQ_API int authResult = 1;  // no token yet
QDQ_API int urlResult;
QDQ_API int pluginUrlResult;
QDQ_API char pluginCenterURL[128];
QDQ_API int port = 443;
}
