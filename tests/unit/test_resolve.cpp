// Name resolution: literals and names from /etc/hosts only (no test may send
// a query off the machine), loopback skipping and the slot bound.
#include <gtest/gtest.h>
#include <netdb.h>

#include <cstdio>
#include <string>
#include <vector>

#include "common/resolve.h"
#include "test_env.h"

namespace {

using Slots = char[4][qdq::kAddrTextSize];

TEST(Resolve, SingleAddress) {
    struct Case { const char *in; const char *out; };
    // All ones reads as "not an address" and goes to the resolver, which
    // takes the literal without a query.
    for (const Case &c : {Case{"10.0.0.1", "10.0.0.1"}, {"255.255.255.255", "255.255.255.255"}, {"localhost", "127.0.0.1"}}) {
        char address[qdq::kAddrTextSize];
        std::snprintf(address, sizeof address, "%s", c.in);
        EXPECT_EQ(AppGetIPFromDNS(address), 0) << c.in;
        EXPECT_STREQ(address, c.out);
    }
}

TEST(Resolve, AddressList) {
    struct Case { const char *server; int iptype; int capacity; int count; const char *slot0; };
    for (const Case &c : {Case{"192.0.2.1", AF_INET, 4, 1, "192.0.2.1"}, {"2001:db8::1", AF_INET6, 4, 1, "2001:db8::1"},
                          {"0.1.2.3", AF_INET, 4, 1, "0.1.2.3"},  // first number 0: resolved, as a literal
                          {"localhost", AF_INET, 4, 0, "127.0.0.1"}, {"192.0.2.1", AF_INET, 0, 0, "-"}}) {
        Slots slots = {"-", "-", "-", "-"};
        EXPECT_EQ(AppGetIPListFromDNS(c.server, slots, c.iptype, c.capacity), c.count) << c.server;
        EXPECT_STREQ(slots[0], c.slot0) << c.server;
        EXPECT_STREQ(slots[1], "-") << c.server;
    }
}

// A resolver answer chained from numeric look-ups (no name service), so that
// many addresses and mixed families can be walked.
TEST(Resolve, AnswerWalkSkipsLoopbackAndStaysInBounds) {
    struct Case { std::vector<const char *> answers; int iptype; int capacity; std::vector<std::string> want; };
    for (const Case &c : {Case{{"127.0.0.1", "192.0.2.7"}, AF_INET, 4, {"192.0.2.7"}},
                          {{"192.0.2.7", "127.0.0.1", "192.0.2.8", "192.0.2.9"}, AF_INET, 2, {"192.0.2.7", "192.0.2.8"}},
                          {{"192.0.2.7", "::1", "2001:db8::5"}, AF_INET6, 4, {"::1", "2001:db8::5"}}}) {
        std::vector<addrinfo *> parts;
        addrinfo hints{AI_NUMERICHOST, 0, SOCK_STREAM, 0, 0, nullptr, nullptr, nullptr};
        for (const char *a : c.answers) {
            addrinfo *ai = nullptr;
            ASSERT_EQ(getaddrinfo(a, nullptr, &hints, &ai), 0);
            if (!parts.empty()) parts.back()->ai_next = ai;
            parts.push_back(ai);
        }
        Slots slots = {"-", "-", "-", "-"};
        int count = qdq::fill_address_list(parts[0], slots, c.iptype, c.capacity);
        EXPECT_EQ(std::vector<std::string>(slots, slots + count), c.want);
        for (int i = c.capacity; i < 4; ++i) EXPECT_STREQ(slots[i], "-") << "slot " << i;
        for (addrinfo *ai : parts) {
            ai->ai_next = nullptr;
            freeaddrinfo(ai);
        }
    }
}

}  // namespace
