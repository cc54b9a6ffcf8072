// `qdquick-cli status`: the host daemon's status file, with the one thing
// the file cannot say about itself: whether the daemon that wrote it still
// lives (after SIGKILL it goes on saying "running").
#include <cjson/cJSON.h>
#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "cli.h"

namespace cli {

namespace {

using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

std::string text_of(const cJSON *object, const char *key) {
    const cJSON *v = cJSON_GetObjectItemCaseSensitive(object, key);
    return cJSON_IsString(v) ? v->valuestring : "";
}

double number_of(const cJSON *object, const char *key) {
    const cJSON *v = cJSON_GetObjectItemCaseSensitive(object, key);
    return cJSON_IsNumber(v) ? v->valuedouble : 0;
}

std::string read_file(const std::string &path) {
    FILE *f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) throw Error(kError, "cannot read status file " + path + ": " + std::strerror(errno));
    std::string text;
    char buf[4096];
    for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) text.append(buf, n);
    std::fclose(f);
    return text;
}

// "" when the daemon runs, else why it does not.
std::string not_running(const cJSON *doc) {
    const std::string state = text_of(doc, "state");
    if (state == "stopped") return "not running (stopped at " + text_of(doc, "updated") + ")";
    if (state == "failed") return "not running (failed to start at " + text_of(doc, "updated") + ")";
    const double pid = number_of(doc, "pid");
    // EPERM: alive, only not ours to signal.
    if (pid < 1 || (kill(static_cast<pid_t>(pid), 0) != 0 && errno != EPERM))
        return "not running (stale status file)";
    return "";
}

void print_summary(const cJSON *doc, const std::string &down) {
    std::printf("qdquickd %s, pid %.0f: %s\n", text_of(doc, "version").c_str(), number_of(doc, "pid"),
                down.empty() ? (text_of(doc, "state") + " since " + text_of(doc, "started")).c_str() : down.c_str());
    const cJSON *p;
    cJSON_ArrayForEach(p, cJSON_GetObjectItemCaseSensitive(doc, "problems")) {
        std::printf("problem: %s %s port %.0f: %s\n", text_of(p, "service").c_str(), text_of(p, "protocol").c_str(),
                    number_of(p, "port"), text_of(p, "reason").c_str());
    }
    if (const cJSON *r = cJSON_GetObjectItemCaseSensitive(doc, "reload")) {
        std::printf("reload at %s: %s", text_of(r, "time").c_str(), text_of(r, "result").c_str());
        if (!text_of(r, "error").empty()) std::printf(" (%s)", text_of(r, "error").c_str());
        for (const char *key : {"applied", "needs_restart"}) {
            const cJSON *field;
            std::string list;
            cJSON_ArrayForEach(field, cJSON_GetObjectItemCaseSensitive(r, key)) {
                if (cJSON_IsString(field)) list += (list.empty() ? "" : ", ") + std::string(field->valuestring);
            }
            if (!list.empty()) std::printf("; %s: %s", key, list.c_str());
        }
        std::printf("\n");
    }
    cJSON_ArrayForEach(p, cJSON_GetObjectItemCaseSensitive(doc, "platforms")) {
        const std::string beat = text_of(p, "last_heartbeat");
        std::printf("%-7s %-14s %-22s last heartbeat %s\n", p->string, text_of(p, "status").c_str(),
                    text_of(p, "address").c_str(), beat.empty() ? "none" : beat.c_str());
        if (const cJSON *f = cJSON_GetObjectItemCaseSensitive(p, "last_failure")) {
            std::printf("        last failure: %s (%.0f: %s) at %s\n", text_of(f, "status").c_str(),
                        number_of(f, "result"), text_of(f, "reason").c_str(), text_of(f, "time").c_str());
        }
    }
    cJSON_ArrayForEach(p, cJSON_GetObjectItemCaseSensitive(doc, "plugins")) {
        std::printf("plugin  %s %s: %s\n", text_of(p, "Plugin_Name").c_str(), text_of(p, "Version").c_str(),
                    text_of(p, "Status").c_str());
    }
}

}  // namespace

int show_status(const std::string &path, StatusFormat format) {
    const std::string text = read_file(path);
    Json doc(cJSON_Parse(text.c_str()), cJSON_Delete);
    if (!cJSON_IsObject(doc.get()))
        throw Error(kMalformed, "status file " + path + " is not JSON: " + text.substr(0, 200));
    const std::string down = not_running(doc.get());
    if (format == StatusFormat::Text) {
        print_summary(doc.get(), down);
    } else if (format == StatusFormat::Raw) {
        std::fputs(text.c_str(), stdout);
    } else {
        std::unique_ptr<char, decltype(&cJSON_free)> pretty(cJSON_Print(doc.get()), cJSON_free);
        if (!pretty) throw Error(kError, "out of memory");
        std::printf("%s\n", pretty.get());
    }
    std::fflush(stdout);
    if (down.empty()) return kOk;
    // The summary's first line says it already.
    if (format != StatusFormat::Text) std::fprintf(stderr, "qdquick-cli: qdquickd %s\n", down.c_str());
    return kNotRunning;
}

}  // namespace cli
