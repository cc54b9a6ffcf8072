// The rows of the table, one function each. Each returns its figures with
// the baseline measured in the same run.
#pragma once

#include <string>
#include <vector>

#include "measure.h"

namespace bench {

// 1: "ListPlugin" over the local UDP (18401) and TCP ports.
std::vector<Figure> local_rows(const Plan &plan);
// 2: HGConnectManagePlat until "connected", against the simulator.
std::vector<Figure> session_rows(const Plan &plan, const std::string &sim);
// 3: MD5, Base64 and AES against libcrypto.
std::vector<Figure> codec_rows(const Plan &plan);
// 4: AppMgrLogLine against plain writes.
std::vector<Figure> log_rows(const Plan &plan);
// 5: the daemon's memory, threads, descriptors and idle CPU time.
std::vector<Figure> footprint_rows(const Plan &plan, const std::string &daemon, const std::string &sim);
// Row 5's baseline process: maps the same libraries, serves bare echoes
// (ports on its first output line) and does nothing else until killed.
int run_floor_process();

}  // namespace bench
