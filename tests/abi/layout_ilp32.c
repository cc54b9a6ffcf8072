/* The record layouts on the gateway's 32-bit target, checked with the
 * target's compiler: the 32-bit branch of every proof must be the one taken. */
#include <qdquick/qdq_layout.h>

typedef char qdq_target_is_ilp32[(sizeof(void *) == 4 && sizeof(long) == 4) ? 1 : -1];
