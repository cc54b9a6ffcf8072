// Typed access to one JSON object of the configuration, naming every field
// by its dotted path. The first error wins; later calls do nothing.
#pragma once

#include <cjson/cJSON.h>

#include <set>
#include <string>

namespace qdd {

class ConfigReader {
public:
    ConfigReader(const cJSON *object, std::string prefix, std::string *error)
        : object_(object), prefix_(std::move(prefix)), error_(error) {}

    // Text of at most `cap` - 1 bytes (the record field's capacity).
    void text(const char *key, std::string &out, std::size_t cap, bool required_nonempty = false);
    void integer(const char *key, int &out, long low, long high);
    void port(const char *key, unsigned &out, bool zero_allowed);
    void flag(const char *key, bool &out);
    // A nested object; absent gives a reader over nothing (defaults stay).
    ConfigReader child(const char *key);
    // Refuses keys that no call above asked for (typing mistakes).
    void finish();

    bool ok() const { return error_->empty(); }
    std::string name(const char *key) const { return prefix_.empty() ? key : prefix_ + "." + key; }
    void fail(const char *key, const std::string &why);

private:
    const cJSON *item(const char *key);

    const cJSON *object_;
    std::string prefix_;
    std::string *error_;
    std::set<std::string> known_;
};

}  // namespace qdd
