// Test doubles of the vendor platform functions: each records its calls and
// answers from this state, which a test sets.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace qdq_test {

// What the doubles answer and what they saw; reset() restores these values.
struct PlatformState {
    std::string loid = "LOID0001";
    std::string cardno = "CARD42";
    int wevrin = 0;
    std::string br0ip = "192.168.1.1";
    std::string wanlinkmode = "1";
    std::string child_router_json;  // "" = CreateQueryUpdateverReqjson gives NULL
    std::string uci_value = "1";    // getUciOptionValue answer
    std::vector<std::string> calls; // "name arg arg ..." per call
    std::vector<std::string> setcfg; // "file key value"
    int timer_ticks = 0;             // gwd_process_timer_timeout calls
    std::string stored_token;                 // PlatGetStoredToken answer
    std::vector<std::string> store_replies;   // app store answers in order; none left: -1
    std::vector<std::string> store_requests;  // app store request texts sent
};

struct PlatformDouble : PlatformState {
    std::mutex mu;  // guards the state

    void reset();
    void record(const std::string &line);
    std::vector<std::string> calls_named(const std::string &name);
};

PlatformDouble &platform();

}  // namespace qdq_test
