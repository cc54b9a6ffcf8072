// The plugin process log "/var/pluginlog.txt": one time-stamped line per
// start or stop of a C plugin.
#pragma once

// printf-style; appends one line, emptying the file first once it has
// reached 1024 KiB.
void HgSavePluginProcessLog(const char *format, ...) __attribute__((format(printf, 1, 2)));
