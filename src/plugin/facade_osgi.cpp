// The OSGi side of the plugin interface. This build has no OSGi runtime: the
// entry points keep their signatures for the callers and the host and answer
// as an empty runtime would. Only the cache reset acts.
#include <exception>
#include <string>

#include "common/abi_guard.h"
#include "common/log.h"
#include "common/paths.h"
#include "plugin/plugin_paths.h"
#include "plugin/shellsafe.h"

extern "C" {

QDQ_API void HgGenerateUuid(char *) {}
QDQ_API int HgGetEuid(const char *, const char *, char *) { return 0; }
QDQ_API int HgGetBundleId(const char *, const char *, char *) { return 0; }
QDQ_API void HgGetModSwEEView(void *) {}
QDQ_API int GetUuidWithName(const char *, char *) { return 0; }
// No OSGi plugin ever exists here.
QDQ_API int IsOSGIPluginExist(const char *, const char *, char *) { return -1; }
QDQ_API int HgOsgidInstall(const char *, const char *, const char *, const char *) { return 0; }
QDQ_API int HgOsgidUninstall(const char *, const char *) { return 0; }
QDQ_API int HgOsgidUpdate(const char *, const char *, const char *, const char *) { return 0; }
QDQ_API int HgOsgidStart(const char *, const char *) { return 0; }
QDQ_API int HgOsgidStop(const char *, const char *) { return 0; }
QDQ_API int HgStopOsgiFramework(void) { return 0; }
QDQ_API int HgQureyOSGIPluginInstallProgress(const char *, const char *) { return 0; }
QDQ_API int HgGetOsgiPlugin(struct cJSON *) { return 0; }
QDQ_API int HgSetOsgiFrameworkAndJvmUpdatePath(const char *, const char *) { return 0; }
QDQ_API void HgInstallSysBundle(void) {}

// Removes the bundle's temporary and cached data, then restarts it. The
// bundle name lands in an "rm -rf" path: anything but a plain name (no '/',
// no "..") is refused, or a crafted name could remove any directory.
QDQ_API int HgOsgiFactoryReset(const char *bundle, const char *version) {
    if (!qdq::plugin::is_plain(bundle, false)) {
        QDQ_LOG("HgOsgiFactoryReset: refused bundle name:%s", bundle != nullptr ? bundle : "(null)");
        return -1;
    }
    // Fails without a log line; the caller sees -1.
    if (!qdq::guard_entry(nullptr, false, [&] {
            std::string b(bundle);
            for (const std::string &dir : {"/tmp/osgi/bundletemp/" + b, "/osgi/felix-cache/" + b + "/data"})
                qdq::plugin::run_logged("cmdbuf:", "rm -rf " + qdq::plugin::sq(qdq::path(dir)));
            return true;
        }))
        return -1;
    HgOsgidStop(bundle, version);
    HgOsgidStart(bundle, version);
    return 0;
}

}  // extern "C"
