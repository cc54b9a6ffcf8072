// gwd_process_timer_timeout: the vendor daemon runs its own timers from the
// library's one-second tick. A plain host has none; it must stay cheap, as
// it is called on the tick thread.
#include "qdquick/qdplatform.h"

extern "C" QDQ_API void gwd_process_timer_timeout(void) {}
