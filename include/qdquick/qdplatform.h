/*
 * qdplatform: the gateway platform functions that libqdquick calls.
 *
 * On a vendor gateway these come from the vendor's closed libraries; on an
 * ordinary Linux host libqdplatform.so implements them. libqdquick never
 * defines them.
 *
 * Conventions
 * - Output buffers belong to the caller, with the sizes given below; an
 *   implementation writes at most size - 1 characters and a NUL.
 * - Results: 0 on success, -1 on failure, unless documented otherwise.
 * - gwd_process_timer_timeout() is called from the library's timer tick
 *   thread once per (scaled) second; it must return quickly.
 */
#ifndef QDQUICK_QDPLATFORM_H
#define QDQUICK_QDPLATFORM_H

#include "qdq_export.h"

QDQ_EXTERN_C_BEGIN

struct cJSON;

/* Sizes of the caller's output buffers. */
#define QDP_LOID_SIZE 128
#define QDP_CARDNO_SIZE 64
#define QDP_BR0IP_SIZE 64
#define QDP_WANLINKMODE_SIZE 8
#define QDP_CFGVALUE_SIZE 256
#define QDP_REPLY_SIZE 2048
#define QDP_TOKEN_SIZE 1024

/* Push message handed to HgPushUpgradeMessage (228 bytes). */
typedef struct upgrademsg {
    int failed;          /* 0 when the result code was 0, else 1 */
    char version[32];
    char errcode[64];    /* "2", "4", "1" or "5"; empty when failed is 0 */
    char upgradeid[64];
    char name[64];
} upgrademsg;

/* Device facts. */
QDQ_API int GetLoidInfo(char *loid);                 /* QDP_LOID_SIZE */
QDQ_API int GetCardNo(char *cardno);                 /* QDP_CARDNO_SIZE */
QDQ_API int get_wevrin_status(void);                 /* 1 when the link feature is up */
QDQ_API int gghelper_opmode_repeatermode_get(char *br0ip,        /* QDP_BR0IP_SIZE */
                                             char *wanlinkmode); /* QDP_WANLINKMODE_SIZE */
/* A new cJSON object owned by the caller, or NULL. */
QDQ_API struct cJSON *CreateQueryUpdateverReqjson(void);

/* key=value configuration files. */
QDQ_API int setcfgx(const char *file, const char *key, const char *value);
/* value: QDP_CFGVALUE_SIZE bytes; left empty when the key is missing. */
QDQ_API int getcfgx(const char *file, const char *key, char *value);
/* UCI-style option read; value: QDP_CFGVALUE_SIZE bytes. */
QDQ_API int getUciOptionValue(const char *package, const char *section, const char *option,
                              char *value);

/* Processes. */
/* Runs a program without a shell: RunSystemCmd(outfile or NULL, "prog",
 * "arg", ..., "") - the argument list ends with an empty string. With an
 * outfile, standard output goes to that file. Returns the exit status. */
QDQ_API int RunSystemCmd(const char *outfile, ...);
/* Sends signo to every process named `process`; pidfile is advisory. */
QDQ_API int stoppid(const char *process, const char *pidfile, int signo);
/* Makes `name` the system user of a confined plugin: no home directory, no
 * password, no login shell, a group of the same name (busybox "adduser" on
 * a gateway, "useradd --system --no-create-home" where it exists). Returns
 * 0 when `name` is such a plugin user afterwards (made now or by an earlier
 * call), -1 when it cannot be made or when an account of that name exists
 * that is not a plugin user (a plugin never runs as an account of the
 * system). */
QDQ_API int CreatePluginUser(const char *name);

/* Platform messages. */
QDQ_API int HgPushUpgradeMessage(int type, upgrademsg *message);
QDQ_API void gwd_process_timer_timeout(void);

/* App store transport: sends request to server:port, writes the whole
 * answer, NUL-terminated, into reply (QDP_REPLY_SIZE bytes, zeroed by the
 * caller). */
QDQ_API int AppSendRequestToPrivateSmartPlat(const char *request, const char *server,
                                             int port, char *reply);
/* Copies the stored access token into out (QDP_TOKEN_SIZE bytes). */
QDQ_API int PlatGetStoredToken(char *out);

QDQ_EXTERN_C_END

#endif
