// Fetching a package with wget: bounded in time and size, wget's own output
// into the general log, and progress reported as status "Downloading" (the
// bytes through HgGetCpluginDownload) while it runs.
#pragma once

#include <string>

namespace qdq::plugin {

// wget's own bounds (system seconds, scaled) and ours around it.
inline constexpr double kConnectTimeout = 30;
inline constexpr double kReadTimeout = 60;
inline constexpr int kDownloadTries = 3;
inline constexpr double kMaxDownloadSeconds = 1800;
inline constexpr long long kMaxPackage = 64ll << 20;

struct Download {
    std::string name, version, upgradeid;  // for the status reports
    std::string url;
    std::string dir;   // where wget saves, with a trailing '/'
    std::string file;  // the name it saves under (the URL's last part)
    std::string log;   // wget's output, copied into the general log after
    long long expected = 0;  // the order's "Plugin_size"; 0: not given
};

// Runs wget; its status as run_shell reports it (0 = complete). A download
// past kMaxPackage bytes or kMaxDownloadSeconds is stopped (non-zero).
int download(const Download &d);

// The order's "Plugin_size": remembered by HgInstallPlugin and taken (once)
// by the install of the same name and address; 0 when none was given.
void remember_plugin_size(const char *name, const char *url, int size);
long long take_plugin_size(const char *name, const char *url);

}  // namespace qdq::plugin
