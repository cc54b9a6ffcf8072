/* A C host built only against the installed headers and pkg-config files:
 * proves the layouts at compile time and calls the library through its ABI. */
#include <qdquick/qdplatform.h>
#include <qdquick/qdq_layout.h>
#include <qdquick/qdquick.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int status_changes;

static void on_status(int plattype, const char *status, int result) {
    (void)plattype;
    (void)status;
    (void)result;
    status_changes++;
}

static int check(int ok, const char *what) {
    if (!ok) fprintf(stderr, "FAILED: %s\n", what);
    return ok ? 0 : 1;
}

int main(void) {
    quickevcb_t cb;
    int bad = 0;
    char digest[33];
    char *enc;
    memset(&cb, 0, sizeof cb);
    cb.platstatus = on_status;

    bad += check(initQdQuick(&cb) == 0, "initQdQuick");
    bad += check(getPlatInfo(2) == &manageplatinfo, "getPlatInfo(2)");
    bad += check(getPlatInfo(4) == NULL, "getPlatInfo(4)");
    bad += check(getPlatAddr(6) == &messageserver, "getPlatAddr(6)");
    bad += check(getSdkDevInfo() == &deviceinfo, "getSdkDevInfo");
    bad += check(strcmp(cubeplatinfo.status, "unconfigured") == 0, "status unconfigured");
    bad += check(gQuickLogSize == 2048, "gQuickLogSize default");
    bad += check(gQuickLocalPluginOrders == 0, "local plugin orders off by default");
    bad += check(gQuickLanInterface[0] == '\0' && sizeof gQuickLanInterface == 16, "gQuickLanInterface default");

    strcpy(getSdkDevInfo()->devsn, "ABCDEFGH1234567890XY");
    GetMacInSn(getSdkDevInfo()->devsn, "#");
    bad += check(strcmp(deviceinfo.mac, "34567890XY") != 0 && strlen(deviceinfo.mac) == 12, "GetMacInSn");

    getmd5("abc", digest);
    bad += check(strcmp(digest, "900150983CD24FB0D6963F7D28E17F72") == 0, "getmd5");
    enc = base64_encode("Man");
    bad += check(enc != NULL && strcmp(enc, "TWFu") == 0, "base64_encode");
    free(enc);

    AppMgrLogLine("/var/shrcadlog.txt", "c host says %d", 42);
    bad += check(status_changes == 0, "no status callback yet");
    if (bad == 0) printf("c host: ok\n");
    return bad == 0 ? 0 : 1;
}
