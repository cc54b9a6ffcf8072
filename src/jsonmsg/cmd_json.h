// Small edits of a command object shared by the command handlers.
#pragma once

#include <cjson/cJSON.h>

#include <initializer_list>

namespace qdq {

// The member's string value; null when it is absent or not a string (a
// command from the wire may carry any type under any key).
const char *cmd_text(const cJSON *object, const char *key);

// The member's string value, or "" when it is absent or not a string: for
// keys whose absence the command still answers (the facade and the host's
// hooks are never handed a null name or version; an empty one fails every
// check that guards a shell command).
const char *cmd_text_or_empty(const cJSON *object, const char *key);

// Deletes each named member that is present.
void cmd_delete(cJSON *object, std::initializer_list<const char *> keys);

// Sets "Result" (replacing one the command may already carry).
void cmd_result(cJSON *object, int result);

// Replaces the whole object by {"Result": result}.
void cmd_refuse(cJSON *object, int result);

// Sets a string member, replacing one of that name.
void cmd_set_text(cJSON *object, const char *key, const char *value);

// Copies `src` into dst[cap] whole-field: the field is cleared first and the
// copy is cut to cap - 1 characters.
void copy_field(char *dst, unsigned cap, const char *src);

}  // namespace qdq
