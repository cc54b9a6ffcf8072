#include "ability.h"

#include <cstring>
#include <string>

#include "facts.h"
#include "plugins.h"
#include "say.h"

namespace qdd {

void run_ability(cJSON *command, int plattype) {
    if (command == nullptr) return;
    const cJSON *type_item = cJSON_GetObjectItemCaseSensitive(command, "CmdType");
    const char *type = cJSON_IsString(type_item) ? type_item->valuestring : "";
    int result = 0;
    if (std::strcmp(type, "GetDeviceInfo") == 0) {
        add_device_facts(command);
    } else if (std::strcmp(type, "GetPlatformStatus") == 0) {
        json_set(command, "Platforms", platform_states());
    } else if (std::strcmp(type, "ListPlugins") == 0) {
        json_set(command, "Plugins", plugins_to_json());
    } else {
        // The name comes from outside: keep the echo short.
        const std::string shown = std::string(type).substr(0, 64);
        json_set(command, "Error", cJSON_CreateString(("unsupported CmdType \"" + shown + "\"").c_str()));
        result = -1;
    }
    json_set(command, "Result", cJSON_CreateNumber(result));
    say("ability command %.64s from platform %d: %s", type, plattype, result == 0 ? "done" : "refused");
}

}  // namespace qdd
