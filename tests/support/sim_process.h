// Runs the platform simulator as a child process for a test: every port is
// a free one, and the addresses bound are read from its ready line.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace qdq_test {

class SimProcess {
public:
    // Extra options for sim/qdquick-sim (e.g. {"--serial", "SN1"}).
    explicit SimProcess(std::vector<std::string> options);
    ~SimProcess();
    SimProcess(const SimProcess &) = delete;
    SimProcess &operator=(const SimProcess &) = delete;

    bool ready() const { return pid_ > 0 && !ports_.empty(); }
    // Port of "cube", "manage", "plugin", "message"; 0 when unknown.
    unsigned port(const std::string &service) const;
    // Lines of the record file (JSON lines the simulator writes) that
    // contain every one of `needles`.
    std::vector<std::string> records_with(const std::vector<std::string> &needles) const;

private:
    pid_t pid_ = -1;
    std::string record_;
    std::vector<std::pair<std::string, unsigned>> ports_;
};

}  // namespace qdq_test
