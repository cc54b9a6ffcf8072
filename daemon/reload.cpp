#include "reload.h"

#include <cjson/cJSON.h>

#include <memory>
#include <utility>

namespace qdd {

namespace {

using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

// Fields (or whole objects, by prefix) that take effect without a restart.
const char *const kLive[] = {"platforms.", "retry_seconds", "log_size_kib", "plugins.run_after_install",
                             "local.refuse_tcp_clients"};

bool live(const std::string &field) {
    for (const char *l : kLive) {
        const std::string prefix = l;
        if (field == prefix || (prefix.back() == '.' && field.rfind(prefix, 0) == 0)) return true;
    }
    return false;
}

void compare(const cJSON *a, const cJSON *b, const std::string &prefix, std::vector<std::string> &out) {
    auto name = [&](const char *key) { return prefix.empty() ? std::string(key) : prefix + "." + key; };
    for (const cJSON *x = a != nullptr ? a->child : nullptr; x != nullptr; x = x->next) {
        const cJSON *y = b != nullptr ? cJSON_GetObjectItemCaseSensitive(b, x->string) : nullptr;
        if (cJSON_IsObject(x) && cJSON_IsObject(y))
            compare(x, y, name(x->string), out);
        else if (y == nullptr || !cJSON_Compare(x, y, true))
            out.push_back(name(x->string));
    }
    for (const cJSON *y = b != nullptr ? b->child : nullptr; y != nullptr; y = y->next) {
        if (a == nullptr || cJSON_GetObjectItemCaseSensitive(a, y->string) == nullptr) out.push_back(name(y->string));
    }
}

}  // namespace

std::vector<std::string> changed_fields(const std::string &old_text, const std::string &new_text) {
    Json a(cJSON_Parse(old_text.c_str()), cJSON_Delete), b(cJSON_Parse(new_text.c_str()), cJSON_Delete);
    std::vector<std::string> out;
    compare(a.get(), b.get(), "", out);
    return out;
}

ReloadPlan plan_reload(Config &running, const Config &fresh) {
    ReloadPlan plan;
    for (const std::string &field : changed_fields(running.text, fresh.text))
        (live(field) ? plan.applied : plan.restart).push_back(field);
    // The switches of the platforms live under "services": they stay.
    using Pair = std::pair<PlatformConfig *, const PlatformConfig *>;
    for (auto [to, from] : {Pair{&running.cube, &fresh.cube}, Pair{&running.manage, &fresh.manage},
                            Pair{&running.plugin, &fresh.plugin}}) {
        to->address = from->address;
        to->port = from->port;
        to->local_port = from->local_port;
    }
    running.retry_seconds = fresh.retry_seconds;
    running.log_size_kib = fresh.log_size_kib;
    running.run_after_install = fresh.run_after_install;
    running.refuse_tcp_clients = fresh.refuse_tcp_clients;
    running.text = fresh.text;
    return plan;
}

}  // namespace qdd
