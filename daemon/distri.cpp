#include "distri.h"

#include <cjson/cJSON.h>

#include <cstdio>
#include <fstream>
#include <sstream>

namespace qdd {

namespace {

cJSON *object_member(cJSON *parent, const char *key) {
    cJSON *child = cJSON_GetObjectItemCaseSensitive(parent, key);
    if (cJSON_IsObject(child)) return child;
    cJSON_DeleteItemFromObjectCaseSensitive(parent, key);
    return cJSON_AddObjectToObject(parent, key);
}

void set_member(cJSON *parent, const char *key, cJSON *value) {
    if (cJSON_GetObjectItemCaseSensitive(parent, key) != nullptr)
        cJSON_ReplaceItemInObjectCaseSensitive(parent, key, value);
    else
        cJSON_AddItemToObject(parent, key, value);
}

}  // namespace

bool record_platform_address(const std::string &path, int plattype, const std::string &address,
                             unsigned port) {
    if (plattype != 1 && plattype != 2) return false;
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    const char *end = nullptr;
    cJSON *doc = cJSON_ParseWithOpts(text.str().c_str(), &end, 0);
    if (!cJSON_IsObject(doc)) {
        cJSON_Delete(doc);
        return false;
    }
    cJSON *platform = object_member(object_member(doc, "platforms"), plattype == 1 ? "cube" : "manage");
    set_member(platform, "address", cJSON_CreateString(address.c_str()));
    set_member(platform, "port", cJSON_CreateNumber(port));
    char *out = cJSON_Print(doc);
    cJSON_Delete(doc);
    if (out == nullptr) return false;
    const std::string tmp = path + ".tmp";
    bool ok = false;
    if (FILE *f = std::fopen(tmp.c_str(), "w")) {
        ok = std::fputs(out, f) >= 0 && std::fputc('\n', f) != EOF;
        ok = std::fclose(f) == 0 && ok && std::rename(tmp.c_str(), path.c_str()) == 0;
    }
    cJSON_free(out);
    return ok;
}

}  // namespace qdd
