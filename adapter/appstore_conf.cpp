#include "appstore_conf.h"

#include <cstdlib>

#include "adapter_io.h"
#include "common/paths.h"
#include "kvfile.h"

namespace qdp {

namespace {

// The environment's value, else the file's; found is false when neither has it.
std::string setting(const std::string &file, const char *key, const char *env, bool &found) {
    const char *value = std::getenv(env);
    if (value != nullptr && value[0] != '\0') {
        found = true;
        return value;
    }
    std::string text;
    found = kv_get(file, key, text) == KvResult::found && !text.empty();
    return text;
}

double seconds(const std::string &file, const char *key, const char *env, double fallback) {
    bool found = false;
    std::string text = setting(file, key, env, found);
    if (!found) return fallback;
    char *end = nullptr;
    double value = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0' || !(value > 0) || value > 3600) {
        warn("%s: \"%s\" is not a number of seconds, %g used", key, text.c_str(), fallback);
        return fallback;
    }
    return value;
}

}  // namespace

StoreSettings store_settings() {
    const std::string file = qdq::path(kAppStoreConfFile);
    StoreSettings s;
    bool found = false;
    const char *env_ca = std::getenv("QDPLATFORM_CA_FILE");
    if (env_ca != nullptr && env_ca[0] != '\0') {
        s.ca_file = env_ca;
    } else {
        // A path in the file is a system path like every other one here.
        std::string ca = setting(file, "ca_file", "QDPLATFORM_CA_FILE", found);
        if (found) s.ca_file = qdq::path(ca);
    }
    s.connect_timeout = seconds(file, "connect_timeout", "QDPLATFORM_CONNECT_TIMEOUT", s.connect_timeout);
    s.read_timeout = seconds(file, "read_timeout", "QDPLATFORM_READ_TIMEOUT", s.read_timeout);
    s.plain = setting(file, "plain", "QDPLATFORM_APPSTORE_PLAIN", found) == "1";
    return s;
}

}  // namespace qdp
