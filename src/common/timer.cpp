// Application timer service (placeholder until the timer module lands).
#include "qdquick/qdquick.h"

extern "C" QDQ_API int AppInitTimerModule(void) { return 0; }
