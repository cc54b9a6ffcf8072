// Processing of the platforms' answers to Boot, Register and Heartbeat, and
// the session's status word.
#pragma once

#include "qdquick/qdquick.h"

// Sets the platform's status word and tells the host (callback slot 1) when
// it changed.
void HgSetPlateStatus(int plattype, const char *status, int result);
// Return the reply's "Result", or kSessionNoReply (-1) for an unusable reply.
int ProcessBootReply(const char *reply, int plattype);
int ProcessRegReply(const char *reply, platinfo *record);
// reply NULL: the heartbeat failed or timed out.
int ProcessHeartBeatReply(const char *reply, int plattype);
int record_plat_heartbeat_time(int plattype);
// Thread body: pushes one event text (a malloc'ed copy it takes ownership
// of) to the message server.
void *PorcessEventInform(void *event);
