#include "sim_process.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "test_env.h"

#ifndef QDQ_SOURCE_DIR
#error "QDQ_SOURCE_DIR must name the source tree"
#endif

namespace qdq_test {

SimProcess::SimProcess(std::vector<std::string> options) {
    static int counter = 0;
    record_ = root() + "/sim-" + std::to_string(getpid()) + "-" + std::to_string(counter++) + ".jsonl";
    std::vector<std::string> args = {"/usr/bin/python3", std::string(QDQ_SOURCE_DIR) + "/sim/qdquick-sim",
                                     "--bind", "127.0.0.1", "--cube-port", "0", "--manage-port", "0",
                                     "--plugin-port", "0", "--message-port", "0", "--record", record_};
    args.insert(args.end(), options.begin(), options.end());
    // Built before the fork: the child of a threaded process must not allocate.
    std::vector<char *> argv;
    for (auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    int out[2];
    if (pipe(out) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
        dup2(out[1], 1);
        close(out[0]);
        close(out[1]);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(out[1]);
    FILE *in = fdopen(out[0], "r");
    char line[1024];
    // The ready line names every bound address: "cube=127.0.0.1:40001 ...".
    while (in != nullptr && std::fgets(line, sizeof line, in) != nullptr) {
        if (std::strncmp(line, "qdquick-sim ready", 17) != 0) continue;
        std::istringstream words(line + 17);
        std::string word;
        while (words >> word) {
            size_t eq = word.find('='), colon = word.rfind(':');
            if (eq == std::string::npos || colon == std::string::npos) continue;
            ports_.emplace_back(word.substr(0, eq), static_cast<unsigned>(std::stoul(word.substr(colon + 1))));
        }
        break;
    }
    if (in != nullptr) std::fclose(in);
}

SimProcess::~SimProcess() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
}

unsigned SimProcess::port(const std::string &service) const {
    for (const auto &p : ports_)
        if (p.first == service) return p.second;
    return 0;
}

std::vector<std::string> SimProcess::records_with(const std::vector<std::string> &needles) const {
    std::vector<std::string> out;
    std::istringstream lines(read_file(record_));
    std::string line;
    auto in_line = [&line](const std::string &needle) { return line.find(needle) != std::string::npos; };
    while (std::getline(lines, line))
        if (std::all_of(needles.begin(), needles.end(), in_line)) out.push_back(line);
    return out;
}

}  // namespace qdq_test
