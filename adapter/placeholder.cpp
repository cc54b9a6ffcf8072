// Stand-alone platform adapter (being written).
#include "qdquick/qdplatform.h"

extern "C" QDQ_API void gwd_process_timer_timeout(void) {}
