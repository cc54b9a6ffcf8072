/*
 * qdquick: gateway-management agent library, public C interface.
 *
 * Conventions
 * - Records (platinfo, struct deviceinfo, serveraddr and the install records)
 *   are fixed-layout and shared with the host: field order and widths are
 *   part of the ABI and never change. Text fields are NUL-terminated arrays.
 * - The records exist once per process, are never allocated or freed, and
 *   are shared by every thread without locks; fields are written whole.
 * - Buffers passed in by the caller belong to the caller and must have the
 *   documented size. Results that are heap texts (the Base64 codecs, the
 *   reply of HGProcessPlatJsonMsg) are allocated with malloc and freed by the
 *   caller with free().
 * - Functions return 0 on success and -1 on failure unless documented
 *   otherwise; failures are logged and never abort the process. No C++
 *   exception ever crosses this interface.
 * - Call initQdQuick() once, before any other function that starts a thread.
 * - Local clients (UDP 18401, the local TCP port) may list and query
 *   plugins but not install, start, stop or remove them unless the host
 *   sets gQuickLocalPluginOrders; the manage platform's local UDP port takes
 *   datagrams only from the manage platform's current address.
 * - Every fixed path is taken relative to $QDQUICK_ROOT (empty by default)
 *   and every wait is scaled by $QDQUICK_TIME_SCALE (1 by default).
 */
#ifndef QDQUICK_QDQUICK_H
#define QDQUICK_QDQUICK_H

#include <netinet/in.h>
#include <pthread.h>
#include <stddef.h>

#include "qdq_export.h"

QDQ_EXTERN_C_BEGIN

struct cJSON; /* cJSON item; include <cjson/cJSON.h> to use it */

/* ---- Platform types ---------------------------------------------------- */
enum {
    QDQ_PLAT_QUICKINSTALL = 0, /* CreatePrecessUdpReqThread: quick-install */
    QDQ_PLAT_CUBE = 1,
    QDQ_PLAT_MANAGE = 2,
    QDQ_PLAT_PLUGIN = 3,
    QDQ_PLAT_LOCALTCP = 4,
    QDQ_PLAT_LOCALUDP = 5,
    QDQ_PLAT_MSGSERVER = 6
};

/* ---- Records ----------------------------------------------------------- */

/* Per-platform session record (cubeplatinfo, manageplatinfo, pluginplatinfo). */
typedef struct platinfo {
    char MgtURL[128];
    unsigned int port;
    unsigned int interval;
    int localability;
    unsigned int localsrvport;
    unsigned int hostreserved[4]; /* the host's; never touched here */
    char challengecode[64];
    char curip[64];
    char heartbeatip[64];
    unsigned int heartbeatport;
    unsigned int hbreplied;
    unsigned int tcpflag;
    pthread_t tid;
    int socketfd;
    char devrnd[36];
    char reqkey[256];
    unsigned int bootflag;
    unsigned int firsthb;
    unsigned int localport;
    struct sockaddr_in localaddr;
    struct sockaddr_in remoteaddr;
    struct sockaddr_in6 localaddr6;
    struct sockaddr_in6 remoteaddr6;
    signed char regflag;
    unsigned char isinreg;
    signed char nexttimer;
    unsigned char hostflag;   /* the host's; never touched here */
    unsigned char spareflag;  /* cleared by the plugin connect, read by none */
    signed char hbfailnum;
    char status[64];
} platinfo;

/* Device identity record, filled by the host through getSdkDevInfo(). */
struct deviceinfo {
    char firmwarever[64];
    char hardwarever[64];
    char model[256];
    char devsn[256];
    char mac[128];
    char cardflag[64];
    char loid[128];
    char hostinfo[128]; /* the host's; never touched here */
    char ipaddr[320];
    char areacode[32];
    char pppoename[72];
    unsigned char ipmode; /* 2 = IPv4, 10 = IPv6 */
    unsigned char hostbytes[4]; /* the host's; never touched here */
    unsigned char regtype;
    unsigned char cuberegistered;
};
typedef struct deviceinfo deviceinfo_t;

/* Server address record (messageserver, updateserver). */
typedef struct serveraddr {
    char addr[64];
    unsigned int port;
} serveraddr;

/* C plugin install record, handed to HgDownLoadCpluginAndProcess (860 bytes). */
typedef struct cplugininstinfo {
    char name[128];
    char version[64];
    char url[128];
    char type[8];
    char right[8];
    char visibility[8];
    char architecture[8];
    char kernelversion[32];
    char entryfile[128];
    char provides[128];
    char description[128];
    char upgradeid[68];
    int cpu;
    int physicalram;
    int virtualram;
    int disk;
    int socket;
    int runflag;
} cplugininstinfo;

/* Install result record (228 bytes), owned by HgProcessPlugPush once given. */
typedef struct pluginpushresult {
    int result;
    char version[96];
    char upgradeid[64];
    char name[64];
} pluginpushresult;

/* App store token record. */
typedef struct apptokeninfo {
    int obtained;
    char access_token[1024];
    int expire_in;
    char scope[128];
    char error[32];
    char error_description[1024];
} apptokeninfo;

/* App store addresses. */
typedef struct appurlinfo {
    char ServerURL[128];
    char DownloadURL[128];
    char ServerURL1[128];
} appurlinfo;

/* ---- Host callbacks (initQdQuick) -------------------------------------- */

/* The host's five callbacks, copied by value by initQdQuick(). */
typedef struct quickevcb_t {
    /* 0: timer ids unknown to the library; the three extra arguments are
     *    the timer's period, its repeat flag and 0. May be NULL. */
    void (*timerevent)(int timerid, int period, int multtimes, int reserved);
    /* 1: a platform's status word changed. May be NULL. */
    void (*platstatus)(int plattype, const char *status, int result);
    /* 2: a platform address was rewritten (1 cube, 2 manage). */
    void (*platdistri)(int plattype, platinfo *record);
    /* 3: a quick-install request; write the reply text (at most 511
     *    characters) into the zeroed 512-byte reply buffer. */
    void (*quickinstall)(char *reply, const char *request);
    /* 4: an ability command; write results into the command object. */
    void (*ability)(struct cJSON *command, int *plattype);
} quickevcb_t;

/* ---- Exported globals ---------------------------------------------------- */

QDQ_API extern platinfo cubeplatinfo;
QDQ_API extern platinfo manageplatinfo;
QDQ_API extern platinfo pluginplatinfo;
QDQ_API extern struct deviceinfo deviceinfo;
QDQ_API extern serveraddr messageserver;
QDQ_API extern serveraddr updateserver;
QDQ_API extern pthread_t platregtid;
QDQ_API extern int srvreplyflag;
QDQ_API extern int platresendnum;
QDQ_API extern char platreplybuf[128];
QDQ_API extern char manageplatUrl[512];
QDQ_API extern char devMac[512];

QDQ_API extern int gQuickLogSize;          /* KiB; <= 0 switches the limit off */

/* Local plugin orders. 0 (the default): the plugin lifecycle commands
 * "Install", "UnInstall", "Run", "Stop", "FactoryPlugin" and
 * "Install_cancel" from local clients (UDP 18401, the local TCP port) act on
 * nothing and are answered "Result" -15; "ListPlugin" and "Install_query"
 * are answered. Non-zero lets them through: a risk, since anyone who reaches
 * those ports can then install and start code on the gateway. A plugin
 * installed by a local order always runs as a user of its own with limits,
 * whatever its descriptor says, and never loads a kernel module. */
QDQ_API extern int gQuickLocalPluginOrders;
/* Interface the firewall rules of the local ports accept from ("br-lan"):
 * with a name, each rule gets "-i NAME" (letters, digits, '.', '_', '-', a
 * trailing '+'; any other name leaves the port closed). Empty (the default):
 * the rules accept from every interface. Set before starting the services. */
QDQ_API extern char gQuickLanInterface[16];
QDQ_API extern pthread_mutex_t log_mutex;

QDQ_API extern apptokeninfo appStoreTokenInfo;
QDQ_API extern appurlinfo appStoreUrlInfo;
QDQ_API extern char gToken[1024];
QDQ_API extern int timep;
QDQ_API extern int authResult;
QDQ_API extern int urlResult;
QDQ_API extern int pluginUrlResult;
QDQ_API extern char pluginCenterURL[128];
QDQ_API extern int port; /* app store server port, 443 */

/* ---- Initialisation ------------------------------------------------------ */

/* Keeps the callbacks (a quickevcb_t), clears the records, sets every status
 * to "unconfigured" and starts the timer module. NULL: returns 0, no effect. */
QDQ_API int initQdQuick(const void *callbacks);

/* ---- Records ------------------------------------------------------------- */

QDQ_API platinfo *getPlatInfo(int plattype);     /* 1, 2, 3; else NULL */
QDQ_API serveraddr *getPlatAddr(int kind);       /* 6; else NULL */
QDQ_API struct deviceinfo *getSdkDevInfo(void);
/* Derives deviceinfo.mac from the serial number and a marker text. */
QDQ_API void GetMacInSn(const char *sn, const char *marker);

/* ---- Logging ------------------------------------------------------------- */

/* Appends one time-stamped line to the file `path`. */
QDQ_API int AppMgrLogLine(const char *path, const char *format, ...) QDQ_PRINTF(2, 3);

/* ---- Text, address and JSON utilities -------------------------------------- */

QDQ_API char *appPtrStrcpy(char *dest, const char *src);
QDQ_API int appPtrStrcmp(const char *a, const char *b);
QDQ_API int isValidIpv6Address(const char *text);
QDQ_API int isValidIpv4Address(const char *text);
QDQ_API int isValidIpAddress(int family, const char *text);
QDQ_API int GetIntValueFromJson(const struct cJSON *item);
/* Copies a string item (shorter than 128 bytes) into dest. */
QDQ_API int GetCharValueFromJson(const struct cJSON *item, char *dest);
QDQ_API char *delmacDelimiter(char *mac, char delim);   /* mac < 32 chars */
QDQ_API char *setmacDelimiter(char *mac, char delim);   /* mac holds 18 bytes */
QDQ_API int str_to_int(const char *text, int *out);
QDQ_API int str_to_uint(const char *text, unsigned int *out);
QDQ_API void int_to_str(const int *value, char *text);          /* text: 12 bytes */
QDQ_API void uint_to_str(const unsigned int *value, char *text); /* text: 12 bytes */
QDQ_API int IsTextUTF8(const char *bytes, unsigned long length);
QDQ_API int code_convert(const char *from, const char *to, char *in, size_t in_len,
                         char *out, size_t out_len);
QDQ_API int u2g(char *in, size_t in_len, char *out, size_t out_len);
QDQ_API int g2u(char *in, size_t in_len, char *out, size_t out_len);
QDQ_API int getUTFString(const char *src, char *dest); /* dest: 64 bytes */

/* ---- Command execution --------------------------------------------------- */

QDQ_API int safeSystem(const char *command);
/* Runs command (at most 255 characters) after delay seconds on a command
 * worker thread (queued while all are busy); returns 1 once taken, 0 when
 * refused: a wireless reload while one is pending (after about three
 * seconds), or the command queue full. */
QDQ_API int asyncSystem(const char *command, int delay);
/* out_line: 256 bytes. */
QDQ_API int chk_cmd_res(const char *command, const char *needle, char *out_line);
/* out_word: 256 bytes. */
QDQ_API int get_cmd_res(const char *command, char *out_word);
QDQ_API int dumpmapsinfo(void);

/* ---- MD5 ----------------------------------------------------------------- */

typedef struct MD5_CONTEXT {
    unsigned int count[2];
    unsigned int state[4];
    unsigned char buffer[64];
} MD5_CONTEXT;

QDQ_API void MD5Init(MD5_CONTEXT *context);
QDQ_API void MD5Update(MD5_CONTEXT *context, const unsigned char *input, unsigned int length);
QDQ_API void MD5Final(MD5_CONTEXT *context, unsigned char digest[16]);
QDQ_API void MD5Encode(unsigned char *output, const unsigned int *input, unsigned int length);
QDQ_API void MD5Decode(unsigned int *output, const unsigned char *input, unsigned int length);
QDQ_API void MD5Transform(unsigned int state[4], const unsigned char block[64]);
QDQ_API void MD5toString(const unsigned char digest[16], char *text); /* 33 bytes */
QDQ_API void getmd5(const char *input, char *output);                 /* 33 bytes */

/* ---- Base64 and AES ------------------------------------------------------ */

QDQ_API char *base64_encode(const char *text);
QDQ_API char *base64_encode2(const unsigned char *data, int length);
QDQ_API char *base64_decode(const char *text);
/* *out_length = decoded bytes + 1 (the terminator is counted). */
QDQ_API char *base64_decode2(const char *text, int *out_length);
QDQ_API int ez_AES_ecb_encrypt_PKCS5Padding(const char *input, unsigned char *output,
                                            const unsigned char *key, int key_bits,
                                            int *out_length);
/* hex_out: 2 * 16 * (strlen(input) / 16 + 1) + 1 bytes; input < 240 chars;
 * key: 32 bytes. */
QDQ_API int getaes(const char *input, char *hex_out, const char *key);
/* hex_in: at most 512 characters; text_out: 257 bytes. */
QDQ_API int decrypt_aes(const char *hex_in, char *text_out, const char *key);

/* ---- Timers ---------------------------------------------------------------- */

typedef void (*AppTimerCallback)(int timerid);

QDQ_API int AppInitTimerModule(void);
QDQ_API int AppTimerCreate(int seconds, int timerid, int multtimes, AppTimerCallback callback);
QDQ_API int AppTimerDestory(int timerid);
QDQ_API int AppCreateTimerProcessThread(void);
/* One tick: counts every running timer down by one second. */
QDQ_API void AppProcessTimerTimeout(int signo);
QDQ_API void DumpAppTimerInfo(int index);
QDQ_API void QdTimeoutHandle(int timerid);

/* ---- Platform sessions ----------------------------------------------------- */

QDQ_API int HGConnectCubePlat(platinfo *record);
QDQ_API int HGConnectManagePlat(platinfo *record);
QDQ_API int HGConnectPluginPlat(void);
QDQ_API int HGDisconnectPlat(int plattype);
QDQ_API int CreateConnectPluginPlatThread(void);

/* ---- Commands -------------------------------------------------------------- */

/* HGProcessPlatJsonMsg's answer to an ability command that failed: no reply. */
#define QDQ_ABILITY_FAILED (-101)

/* Answers one JSON command; *out receives a malloc'ed reply the caller frees.
 * Returns the bytes handed out, 0 for no reply, or QDQ_ABILITY_FAILED. */
QDQ_API int HGProcessPlatJsonMsg(const char *msg, char **out, int *plattype);

/* ---- Local services -------------------------------------------------------- */

/* *plattype must outlive the service thread. 0 starts the quick-install port. */
QDQ_API int CreatePrecessUdpReqThread(int *plattype);
QDQ_API int CreatePrecessTcpReqThread(int *plattype);
QDQ_API int StopProcessTcpRequest(void);

/* ---- Plugins --------------------------------------------------------------- */

/* Plugin hooks. The facade below answers the platform's plugin commands with
 * fixed results and leaves the plugin work to its host. A host that does the
 * work (for example starts HgDownLoadCpluginAndProcess for an accepted
 * install) registers hooks: each entry point calls its hook when one is set
 * and answers with the hook's result, else keeps its fixed answer.
 *   install   <- HgInstallPlugin      run    <- HgPluginRun
 *   stop      <- HgPluginStop         uninstall <- HgUnInstallPlugin
 *   status    <- HgSetCpluginStatus   list   <- HgGetCPlugin (adds entries)
 * Any hook may be NULL. Hooks run on the library's command threads. */
typedef struct qdqpluginhooks_t {
    int (*install)(int os, const char *name, const char *version, const char *url, int size,
                   const char *upgradeid);
    int (*run)(const char *name, const char *version);
    int (*stop)(const char *name, const char *version);
    int (*uninstall)(const char *name, const char *version);
    void (*status)(const char *name, const char *version, const char *status, const char *upgradeid);
    void (*list)(struct cJSON *list);
} qdqpluginhooks_t;

/* Copies the hooks (NULL clears them all). Safe at any time, but a command
 * already running may still see the previous set. Returns 0. */
QDQ_API int HgSetPluginHooks(const qdqpluginhooks_t *hooks);

QDQ_API void HgGenerateUuid(char *uuid);
QDQ_API int HgGetEuid(const char *name, const char *version, char *euid);
QDQ_API int HgGetBundleId(const char *name, const char *version, char *bundleid);
QDQ_API void HgGetModSwEEView(void *view);
QDQ_API int GetUuidWithName(const char *name, char *uuid);
QDQ_API int IsOSGIPluginExist(const char *name, const char *version, char *bundleid);
QDQ_API int HgOsgidInstall(const char *url, const char *name, const char *version,
                           const char *upgradeid);
QDQ_API int HgOsgidUninstall(const char *name, const char *version);
QDQ_API int HgOsgidUpdate(const char *url, const char *name, const char *version,
                          const char *upgradeid);
QDQ_API int HgOsgidStart(const char *name, const char *version);
QDQ_API int HgOsgidStop(const char *name, const char *version);
QDQ_API int HgStopOsgiFramework(void);
QDQ_API int HgQureyOSGIPluginInstallProgress(const char *name, const char *version);
QDQ_API int HgGetOsgiPlugin(struct cJSON *list);
QDQ_API int HgSetOsgiFrameworkAndJvmUpdatePath(const char *framework, const char *jvm);
QDQ_API int IsCPluginExist(const char *name, const char *version);
QDQ_API int HgDelCplugin(const char *name, const char *version);
QDQ_API int HgSetCpluginStatus(const char *name, const char *version, const char *status,
                               const char *upgradeid);
QDQ_API int HgAddCpluginToList(const cplugininstinfo *record);
QDQ_API int HgCPluginInstall(const char *url, const char *name, const char *version,
                             const char *upgradeid);
QDQ_API int HgCPluginUpdate(const char *url, const char *name, const char *version,
                            const char *upgradeid);
QDQ_API int HgQureyCPluginInstallProgress(const char *name, const char *version);
QDQ_API int HgCPluginStart(const char *name, const char *version);
QDQ_API int HgCPluginStop(const char *name, const char *version);
QDQ_API int HgGetCPlugin(struct cJSON *list);
QDQ_API int HgFactoryCPlugin(const char *name, const char *version);
QDQ_API int HgInstallPlugin(int os, const char *name, const char *version, const char *url,
                            int size, const char *upgradeid);
QDQ_API int HgUnInstallPlugin(const char *name, const char *version);
QDQ_API int HgQueryPluginInstallProgress(const char *name, const char *version);
QDQ_API int HgPluginInstallCancel(const char *name, const char *version);
QDQ_API int HgPluginRun(const char *name, const char *version);
QDQ_API int HgPluginStop(const char *name, const char *version);
QDQ_API int HgFactoryPlugin(const char *name, const char *version);
QDQ_API int HgSetPluginParameterValues(const char *name, const char *version,
                                       const char *parameter);
QDQ_API int HgRunActiveCplugin(void);
QDQ_API void HgInstallSysCPlugin(void);
QDQ_API void HgInstallSysBundle(void);
QDQ_API void HGCleanPreInstallPlugin(void);
QDQ_API int HgSetCPluginParameterValues(const char *name, const char *version,
                                        const char *parameter);
QDQ_API int HgOsgiFactoryReset(const char *bundle, const char *version);
QDQ_API int HgListPlugin(struct cJSON *object);
QDQ_API int IsCplugFormat(const char *filename);
QDQ_API int IsOSGIFormat(const char *filename);
/* Returns the eight uninstall flags, refreshed. */
QDQ_API int *HgGetPluginUnistallFlag(void);
/* Thread body: record is a cplugininstinfo; the thread works on a copy. */
QDQ_API void *HgDownLoadCpluginAndProcess(void *record);
/* While the package of plugin `name` downloads (its status "Downloading"):
 * bytes received so far and bytes expected (the order's "Plugin_size", else
 * the server's length, 0 when neither is known); returns 0. -1 when no
 * download of that plugin runs. Either pointer may be NULL. */
QDQ_API int HgGetCpluginDownload(const char *name, long long *done, long long *expected);
QDQ_API int HgCPluginRun(const char *name, const char *version, const char *type,
                         char *entryfile, int cpu, int vram, int sockets);
QDQ_API int ProcessCPluginStop(const char *name, const char *version, const char *type,
                               const char *entryfile);
/* C plugins are tracked by process: each program HgCPluginRun starts leads
 * a process group of its own, and ProcessCPluginStop stops an "app" through
 * those groups (SIGTERM, a grace period, SIGKILL), children included.
 * HgCPluginPid: the pid of the plugin's running program, 0 when none.
 * HgCPluginStopAll: stops every plugin program started by this process (a
 * host calls it before it exits); returns the number of groups stopped.
 * HgCPluginAdopt: tracks a plugin program that an earlier, killed run of
 * the host left running (pid from HgCPluginPid then), so that it is not
 * started twice: 0 when pid is alive, leads its own process group and runs
 * in the plugin's MyPlugin folder, else -1. */
QDQ_API int HgCPluginPid(const char *name);
QDQ_API int HgCPluginStopAll(void);
QDQ_API int HgCPluginAdopt(const char *name, int pid);
QDQ_API int HgCplugPushCheck(const char *name, const char *version, const char *status,
                             const char *upgradeid);

/* ---- App store ------------------------------------------------------------- */

QDQ_API int AppGetStoreToken(void);
QDQ_API int AppProcessStoreTokenRequest(void);
QDQ_API int AppGetStoreUrl(void);
QDQ_API int AppGetPluginUrl(void);
QDQ_API int AppStoreReportRequestPlugin(void);
QDQ_API int AppStoreConnectPluginPlat(void);
/* Each appends its request to a zeroed 1024-byte buffer. */
QDQ_API int GenerateGetAppStoreToken(char *out);
QDQ_API int GenerateGetAppStoreUrl(char *out);
QDQ_API int GenerateGetPluginUrl(char *out);
QDQ_API int AppProcessGetStoreTokenReply(const char *reply);
QDQ_API int AppProcessGetStoreUrlReply(const char *reply);
QDQ_API int AppProcessGetPluginUrlReply(const char *reply);
QDQ_API int getStoredToken(char *out); /* out: 1024 bytes */
QDQ_API void getrand(char *out);       /* out: 33 bytes */
QDQ_API void SendAppStoreTokenInfoToWeb(void);
QDQ_API void SendAppStoreUrlInfoToWeb(void);
QDQ_API void SendPluginUrlInfoToWeb(void);
QDQ_API void SendRequestPluginToWeb(void);
QDQ_API void SendPluginRespInfoToWeb(void);

QDQ_EXTERN_C_END

#endif
