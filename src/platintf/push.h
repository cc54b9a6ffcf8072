// Signed push messages to the message server.
#pragma once

#include <string>

// Builds, signs and sends one event text; returns the server's "Result", or
// a negative value when nothing was delivered. Needs a registered manage
// platform and a known message server.
int SendPushMessage(const char *message, const char *pluginname);
// The integer "Result" of a push reply, or -1.
int HGProcessPushReply(const char *reply);
// The formatted "MessagePush" body for a time stamp ("%d%02d%02d%02d%02d%02d").
std::string BuildPushMessage(const char *message, const char *pluginname, const std::string &stamp);
