#include "config_reader.h"

#include <cmath>

namespace qdd {

void ConfigReader::fail(const char *key, const std::string &why) {
    if (error_->empty()) *error_ = name(key) + ": " + why;
}

const cJSON *ConfigReader::item(const char *key) {
    known_.insert(key);
    if (!ok() || object_ == nullptr) return nullptr;
    return cJSON_GetObjectItemCaseSensitive(object_, key);
}

void ConfigReader::text(const char *key, std::string &out, std::size_t cap, bool required_nonempty) {
    const cJSON *v = item(key);
    if (v == nullptr) return;
    if (!cJSON_IsString(v)) return fail(key, "must be a string");
    const std::string value = v->valuestring;
    if (value.size() >= cap) return fail(key, "longer than " + std::to_string(cap - 1) + " characters");
    if (required_nonempty && value.empty()) return fail(key, "must not be empty");
    out = value;
}

void ConfigReader::integer(const char *key, int &out, long low, long high) {
    const cJSON *v = item(key);
    if (v == nullptr) return;
    const double d = cJSON_IsNumber(v) ? v->valuedouble : NAN;
    if (!cJSON_IsNumber(v) || d != std::floor(d)) return fail(key, "must be a whole number");
    if (d < static_cast<double>(low) || d > static_cast<double>(high))
        return fail(key, "must lie between " + std::to_string(low) + " and " + std::to_string(high));
    out = static_cast<int>(d);
}

void ConfigReader::port(const char *key, unsigned &out, bool zero_allowed) {
    int value = static_cast<int>(out);
    integer(key, value, zero_allowed ? 0 : 1, 65535);
    if (ok()) out = static_cast<unsigned>(value);
}

void ConfigReader::flag(const char *key, bool &out) {
    const cJSON *v = item(key);
    if (v == nullptr) return;
    if (!cJSON_IsBool(v)) return fail(key, "must be true or false");
    out = cJSON_IsTrue(v);
}

ConfigReader ConfigReader::child(const char *key) {
    const cJSON *v = item(key);
    if (v != nullptr && !cJSON_IsObject(v)) {
        fail(key, "must be an object");
        v = nullptr;
    }
    return ConfigReader(v, name(key), error_);
}

void ConfigReader::finish() {
    if (!ok() || object_ == nullptr) return;
    std::set<std::string> seen;
    for (const cJSON *v = object_->child; v != nullptr; v = v->next) {
        if (v->string == nullptr) continue;
        if (known_.count(v->string) == 0) return fail(v->string, "unknown field");
        // cJSON keeps both and reads the first: the second would be ignored.
        if (!seen.insert(v->string).second) return fail(v->string, "given twice");
    }
}

}  // namespace qdd
