// Internal interface of the command module (processjsonmsg): the handlers
// that HGProcessPlatJsonMsg routes platform and local commands to, the
// forwarding to the local job manager and the resend of the kept reply.
//
// Every handler edits the command object in place into its reply: request
// keys it consumed are deleted, "Result" and result keys are added, any
// other key is echoed back.
#pragma once

#include <cjson/cJSON.h>

#include "platintf/session.h"
#include "qdquick/qdquick.h"

namespace qdq {

// The local job manager that takes the commands the library does not handle.
inline constexpr const char *kJobManagerAddr = "127.0.0.1";
inline constexpr unsigned kJobManagerPort = 17401;
inline constexpr unsigned kJobManagerWait = 30;  // seconds
// Reply buffer of a forwarded command (the large-reply UDP client's size).
inline constexpr unsigned kJobManagerReplySize = 102400;

// Answers of the dispatcher itself.
inline constexpr int kResultFailed = -1;
inline constexpr int kResultUnsupportedOs = -7;
inline constexpr int kResultProtected = -14;
inline constexpr int kResultJobManagerSilent = -100;

}  // namespace qdq

// ---- Dispatcher helpers ------------------------------------------------------

// Sends `msg` to the local job manager at 127.0.0.1:`port` and waits
// `timeout` seconds for its answer in `replybuf` (kJobManagerReplySize
// bytes; a reply of the full size has no NUL). Returns the answer's length,
// or -1.
int SendReqOrEventToJM(unsigned port, const char *msg, char *replybuf, unsigned timeout);

// ---- Ability, plugin-request and distribution messages -------------------

// "Post", "Post1" and the local "SetPlug-inParameterValues": the Base64
// "Parameter" goes to the host's ability callback, its answer comes back as
// "return_Parameter". Returns 0, or -1 when no reply could be built.
int HGProcessAbilityMsg(cJSON *object, int *plattype);
// "RequestPlug-in" and "RequestDistri" from the manage platform. Return 0
// when the order was accepted and acted on, -1 otherwise (the object holds
// the reply either way).
int HGProcessRequestPluginMsg(cJSON *object);
int HGProcessRequestDistri(cJSON *object);
// "Disconnect": acknowledged only.
void HGProcessRequestPluginDis(cJSON *object);
// Timer 18: sends the kept "RequestPlug-in" reply to the manage platform
// again, giving up (and reconnecting) after four unanswered sends.
void HGResendManagePlatReply();

// ---- Plugin commands -------------------------------------------------------
// A command that lacks a key its handler needs is answered {"Result": -1}.

void HgProcessPluginInstall(cJSON *object);
void HgProcessPluginUniInstall(cJSON *object);
void HgProcessPluginStop(cJSON *object);
void HgProcessPluginQuery(cJSON *object);
void HgProcessPluginInstallCancel(cJSON *object);
void HgProcessPluginRun(cJSON *object);
void HgProcessFactoryPlugin(cJSON *object);
void HgProcessSetPluginParameterValues(cJSON *object);
void HgProcessListPlugin(cJSON *object);

// 0 when the command names an existing OSGi plugin ("Plugin_Name" not
// empty, "Version" present), else -1.
int isOsgiPlugParamSet(const cJSON *object);
