// Where C plugins live, and the steps that the installer and the starter
// share. Paths here are system paths; qdq::path() is applied where they are
// used.
#pragma once

#include <string>

namespace qdq::plugin {

inline constexpr const char *kPluginRoot = "/qdconf/CPlugin/";
inline constexpr const char *kVolatileRoot = "/var/CPlugin/";
inline constexpr const char *kCommonLib = "/qdconf/CPlugin/Lib/";

// The text after the last '.' of a bundle name (the whole name without one).
std::string short_name(const char *name);

// The plugin directory "/qdconf/CPlugin/<short>/", rooted.
std::string plugin_dir(const std::string &shortname);

bool dir_exists(const std::string &rooted);
bool path_exists(const std::string &rooted);

// True when the plugin's folders are what they should be before anything
// is changed, linked or started in them: the plugin folder, MyPlugin,
// MyPlugin/Lib, Data, /var/CPlugin/<short> and its Temp real folders (not
// links) where present, and <plugin folder>/Temp a real folder or the link
// to the volatile Temp. Logs what is wrong.
bool plugin_folders_ok(const std::string &shortname);

// Runs a command after logging it behind `prefix` ("cmdbuf:"). Returns
// the run_shell status.
int run_logged(const char *prefix, const std::string &command);

// Creates /var/CPlugin/, /var/CPlugin/<short> and its Temp where missing and,
// when the plugin directory has no Temp, links it to the volatile one with
// `link_cmd` ("ln -s" or "ln -sf").
void prepare_temp_dirs(const std::string &shortname, const char *link_cmd);

}  // namespace qdq::plugin
