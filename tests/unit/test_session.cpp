// Session procedures without a platform (thread guard, connect refusals, a
// channel loop stopped from another thread) and what the platforms' answers
// do to the records, the configuration, the status word and the timers.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "common/clock.h"
#include "common/thread.h"
#include "dispatch_helpers.h"
#include "local_helpers.h"
#include "platintf/hgprocessplatintf.h"
#include "platintf/reply_process.h"
#include "platintf/session.h"

namespace {

using dt::armed;
using Lines = std::vector<std::string>;
Lines g_status;  // "<type> <status> <result>" per status callback

struct Session : dt::Dispatch {
    void SetUp() override {
        dt::Dispatch::SetUp();
        for (platinfo *p : {&cubeplatinfo, &manageplatinfo, &pluginplatinfo}) p->socketfd = -1;
        deviceinfo.ipmode = AF_INET;
        platregtid = pthread_self();
        g_status.clear();
        quickevcb.platstatus = [](int type, const char *status, int result) {
            g_status.push_back(std::to_string(type) + " " + status + " " + std::to_string(result));
        };
    }
};
struct ReplyProcess : Session {};

// id -> seconds of every armed timer.
std::map<int, int> all_armed() {
    std::map<int, int> out;
    qdq::MutexLock guard(timerlock);
    for (const AppTimerEntry &t : g_timer)
        if (t.func != 0) out[t.func] = t.left_time;
    return out;
}

TEST_F(Session, ProceduresGiveUpWhenANewerConnectThreadTookOver) {
    pthread_t other;
    ASSERT_EQ(pthread_create(&other, nullptr, [](void *) -> void * { return nullptr; }, nullptr), 0);
    pthread_join(other, nullptr);
    platregtid = other;
    for (int type : {QDQ_PLAT_CUBE, QDQ_PLAT_MANAGE}) {
        std::snprintf(getPlatInfo(type)->MgtURL, 128, "127.0.0.1");
        EXPECT_EQ(HgProcessBoot(type), kSessionSuperseded) << type;
        EXPECT_EQ(HgProcessRegister(type), kSessionSuperseded) << type;
    }
    // The plugin platform has no guard: it goes on (to an empty address).
    EXPECT_EQ(HgProcessBoot(QDQ_PLAT_PLUGIN), kSessionNoAddress);
    EXPECT_EQ(armed(qdq::kTimerConnectPlugin), 5);
    EXPECT_STREQ(pluginplatinfo.status, "try_connect_failed");
}

TEST_F(Session, ConnectRefusalsAndTheManageConnectClearingThePluginRecord) {
    manageplatinfo.isinreg = 1;
    EXPECT_EQ(HGConnectManagePlat(&manageplatinfo), kSessionSuperseded);
    pluginplatinfo.isinreg = 1;
    pluginplatinfo.port = 4;
    EXPECT_EQ(HGConnectPluginPlat(), 0);
    EXPECT_EQ(pluginplatinfo.port, 4u);

    manageplatinfo.isinreg = 0;
    std::snprintf(manageplatinfo.MgtURL, 128, "0.1.2.3");  // resolves, but no IPv4 literal by the gateway's test
    pluginplatinfo.regflag = 1;
    EXPECT_EQ(HGConnectManagePlat(&manageplatinfo), kSessionWrongFamily);
    EXPECT_EQ(pluginplatinfo.port, 0u);
    EXPECT_EQ(pluginplatinfo.regflag, 0);
    EXPECT_STREQ(manageplatinfo.status, "connect_failed");
    EXPECT_EQ(manageplatinfo.isinreg, 0);
    EXPECT_EQ(manageplatinfo.port, 60001u);
    EXPECT_GE(manageplatinfo.localport, 17100u);
    EXPECT_LE(manageplatinfo.localport, 17198u);
}

// A claim is given back once: a connect that handed its record over early
// (to Register, or before the plugin's channel loop) must not, when it
// ends, take the record from a newer connect that claimed it meanwhile.
TEST(RecordClaim, GivenBackOnceAndOnlyByItsHolder) {
    platinfo rec{};
    auto first = std::make_unique<qdq::RecordClaim>(rec);
    ASSERT_TRUE(first->held());
    { qdq::RecordClaim refused(rec); EXPECT_FALSE(refused.held()); }
    EXPECT_EQ(rec.isinreg, 1);
    first->release();
    qdq::RecordClaim newer(rec);
    ASSERT_TRUE(newer.held());
    first.reset();
    EXPECT_EQ(rec.isinreg, 1);
}

// Over TCP the manage connect timer also counts the periodic reconnect,
// hours away. A session that ends, or heartbeats that fail, must still bring
// the next connect within seconds.
TEST_F(Session, ReconnectRequestsOvertakeTheHoursLongPeriodicReconnect) {
    const int hours = 4 * 3600;
    AppTimerCreate(hours, qdq::kTimerConnectManage, 0, QdTimeoutHandle);
    manageplatinfo.regflag = 1;
    EXPECT_EQ(HGDisconnectPlat(QDQ_PLAT_MANAGE), 0);
    EXPECT_EQ(armed(qdq::kTimerConnectManage), 5);

    AppTimerDestory(qdq::kTimerConnectManage);
    AppTimerCreate(hours, qdq::kTimerConnectManage, 0, QdTimeoutHandle);
    manageplatinfo.interval = 60;
    for (int i = 0; i < 3; ++i) ProcessHeartBeatReply(nullptr, QDQ_PLAT_MANAGE);
    EXPECT_EQ(armed(qdq::kTimerConnectManage), 1);

    // A connect already under way is not asked for again.
    AppTimerDestory(qdq::kTimerConnectManage);
    AppTimerCreate(hours, qdq::kTimerConnectManage, 0, QdTimeoutHandle);
    manageplatinfo.isinreg = 1;
    HGDisconnectPlat(QDQ_PLAT_MANAGE);
    EXPECT_EQ(armed(qdq::kTimerConnectManage), hours);
}

TEST_F(Session, DisconnectStopsABlockedLoopWithoutLeaks) {
    // Idle, and inside a half-sent frame (16 bytes announced, 6 sent).
    for (const std::string &stall : {std::string(), std::string("\0\0\0\x10{\"half", 10)}) {
        SCOPED_TRACE(stall.size());
        const long fds = net::open_fds();
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        pluginplatinfo.socketfd = pair[0];
        pluginplatinfo.regflag = 1;
        pluginplatinfo.tid = pthread_t{};
        pthread_t loop;
        auto body = [](void *) -> void * {
            HgProcessPlatTcpConnect(QDQ_PLAT_PLUGIN);
            return nullptr;
        };
        ASSERT_EQ(pthread_create(&loop, nullptr, body, nullptr), 0);
        send(pair[1], stall.data(), stall.size(), 0);
        while (!pthread_equal(pluginplatinfo.tid, loop)) usleep(1000);
        usleep(50000);  // in the wait (or the read) now
        EXPECT_EQ(HGDisconnectPlat(QDQ_PLAT_PLUGIN), 0);
        void *ret = nullptr;
        pthread_join(loop, &ret);
        EXPECT_EQ(ret, PTHREAD_CANCELED);
        EXPECT_EQ(pluginplatinfo.socketfd, -1);
        close(pair[1]);
        EXPECT_EQ(net::open_fds(), fds);
        EXPECT_EQ(pthread_mutex_trylock(&tcpreq_mutex), 0);
        pthread_mutex_unlock(&tcpreq_mutex);
        // The record still names the finished thread: it is not cancelled.
        EXPECT_EQ(HGDisconnectPlat(QDQ_PLAT_PLUGIN), 0);
        EXPECT_EQ(qdq::cancel_channel_thread(QDQ_PLAT_PLUGIN, loop), -1);
    }
}

// Senders (the channel's and the TCP request client) and a disconnect race
// on one record, and the closed number is reused at once by a new
// connection: no frame may ever reach it, and nothing may close it.
TEST_F(Session, SessionSendsNeverReachAReusedDescriptorNumber) {
    std::atomic<bool> stop{false};
    std::thread sender([&] {
        char reply[512];
        for (unsigned n = 0; !stop; ++n) {
            if (n % 2 == 0)
                qdq::session_send(&manageplatinfo, "{\"Result\":1}");
            else
                HGSendTcpRequest(QDQ_PLAT_MANAGE, "{\"RPCMethod\":\"Boot\"}", reply, 0);
        }
    });
    int stray = 0;
    // Without the descriptor lock about one round in 50,000 hits the window.
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (std::chrono::steady_clock::now() < until) {
        int pair[2], reuse[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        __atomic_store_n(&manageplatinfo.socketfd, pair[0], __ATOMIC_RELEASE);
        sched_yield();
        qdq::close_session_socket(&manageplatinfo, true);
        close(pair[1]);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, reuse), 0);  // takes pair[0]'s number
        sched_yield();
        char buf[64];
        if (recv(reuse[1], buf, sizeof buf, MSG_DONTWAIT) > 0 || fcntl(reuse[0], F_GETFD) == -1) ++stray;
        close(reuse[0]);
        close(reuse[1]);
    }
    stop = true;
    sender.join();
    EXPECT_EQ(stray, 0);
}

// A plugin platform that sends more messages than there are channel
// workers (each held here by the host's ability callback): the rest wait in
// the channel queue and every one is answered; one more than the queue
// holds ends the channel, and the platform sees it close.
TEST_F(Session, ChannelAtItsWorkerCapQueuesThenCloses) {
    static std::atomic<int> held{0};
    static std::atomic<bool> release{false};
    quickevcb.ability = [](cJSON *, int *) {
        ++held;
        while (!release) usleep(1000);
    };
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    qdq::Fd far(pair[1]);
    pluginplatinfo.socketfd = pair[0];
    pluginplatinfo.regflag = 1;
    pluginplatinfo.interval = 20;
    std::thread loop([] { HgProcessPlatTcpConnect(QDQ_PLAT_PLUGIN); });
    const int cap = qdq::worker_cap(qdq::Work::channel), depth = qdq::queue_depth(qdq::Work::channel);
    auto send_orders = [&](int n) {
        for (int i = 0; i < n; ++i)
            HgTcpSend(far.get(), (R"({"RPCMethod":"Post1","ID":)" + std::to_string(i) +
                                  R"(,"Parameter":"eyJDbWRUeXBlIjoieCJ9"})").c_str());  // {"CmdType":"x"}
    };
    const int patience = static_cast<int>(10000 * qdq_test::slowdown());  // ms
    send_orders(cap + depth);
    ASSERT_TRUE(local::wait_until([&] { return held == cap && qdq::queued_work(qdq::Work::channel) == depth; },
                                  patience));
    release = true;
    std::set<int> answered;
    for (int i = 0; i < cap + depth && net::wait_in(far.get(), patience); ++i) {
        char *raw = nullptr;
        ASSERT_GT(HgTcpRcv(far.get(), &raw), 0);
        answered.insert(local::json_int(raw, "ID"));
        EXPECT_EQ(local::json_int(raw, "Result"), 0) << raw;
        free(raw);
    }
    EXPECT_EQ(answered.size(), size_t(cap + depth));

    release = false;
    held = 0;
    send_orders(cap + depth + 1);
    EXPECT_TRUE(local::wait_until([&] { return local::closed(far.get()); }, patience)) << "channel still open";
    release = true;
    loop.join();
    EXPECT_TRUE(local::wait_until([] { return qdq::live_workers(qdq::Work::channel) == 0; }, patience));
    quickevcb.ability = nullptr;
}

// A cleared record holds 0: no connection, never descriptor 0 (the host's
// standard input here). The request opens a connection of its own.
TEST_F(Session, TcpRequestOnAClearedRecordLeavesDescriptorZeroAlone) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    qdq::Fd saved(dup(0)), far(pair[1]);
    ASSERT_EQ(dup2(pair[0], 0), 0);
    close(pair[0]);
    qdq::Fd server = net::bound(SOCK_STREAM, true);
    manageplatinfo.socketfd = 0;
    manageplatinfo.port = net::port_of(server.get());
    std::snprintf(manageplatinfo.curip, sizeof manageplatinfo.curip, "127.0.0.1");
    char reply[512];
    EXPECT_EQ(HGSendTcpRequest(QDQ_PLAT_MANAGE, "{}", reply, 1), -1);  // accepted by the backlog, never answered
    char buf[16];
    EXPECT_EQ(recv(far.get(), buf, sizeof buf, MSG_DONTWAIT), -1) << "written on descriptor 0";
    EXPECT_NE(fcntl(0, F_GETFD), -1) << "descriptor 0 closed";
    qdq::Fd conn(accept(server.get(), nullptr, nullptr));
    EXPECT_EQ(net::read_n(conn.get(), 6), net::frame("{}"));
    EXPECT_EQ(manageplatinfo.socketfd, -1);
    dup2(saved.get(), 0);
}

// The reply time-out is armed before the heartbeat leaves (the answer, which
// cancels it, may be read before the send returns): here the send blocks on
// a full socket until the peer has looked. An unsendable heartbeat leaves none.
TEST_F(Session, HeartbeatTimeOutIsArmedBeforeTheSend) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    const int small = 4096;
    setsockopt(pair[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    const std::string filler(1024, 'x');
    while (send(pair[0], filler.data(), filler.size(), MSG_DONTWAIT) > 0) {
    }
    pluginplatinfo.socketfd = pair[0];
    pluginplatinfo.regflag = 1;
    int seen = -1;
    std::thread peer([&] {
        // Looks while the send is blocked (it gives up after 5 scaled s).
        const auto until = std::chrono::steady_clock::now() + qdq::scaled(4);
        while ((seen = armed(qdq::kTimerPluginHbTimeout)) < 0 && std::chrono::steady_clock::now() < until)
            usleep(500);
        char buf[4096];
        while (net::wait_in(pair[1], 500) && recv(pair[1], buf, sizeof buf, 0) > 0) {
        }
    });
    HGSendTcpHeartBeat("{\"RPCMethod\":\"Hb\"}", QDQ_PLAT_PLUGIN);
    peer.join();
    EXPECT_EQ(seen, 20);
    close(pair[1]);
    close(pair[0]);

    AppTimerDestory(qdq::kTimerPluginHbTimeout);
    pluginplatinfo.socketfd = -1;
    HGSendTcpHeartBeat("{\"RPCMethod\":\"Hb\"}", QDQ_PLAT_PLUGIN);
    EXPECT_EQ(armed(qdq::kTimerPluginHbTimeout), -1);
}

// A heartbeat answer (or its time-out), the record it meets and what it
// leaves: the result, the status reported, the timers armed, the record.
struct Heartbeat {
    Heartbeat(int plat, const char *text) : type(plat), reply(text) {}
    Heartbeat &failed_before(int n) { return failures = n, *this; }
    Heartbeat &first_unanswered() { return firsthb = firsthb_after = 1, *this; }
    Heartbeat &first_answered_now() { return firsthb_after = 0, *this; }
    Heartbeat &gives(int r) { return result = r, *this; }
    Heartbeat &reports(const char *line) { return status = line, *this; }
    Heartbeat &arms(int timer, int seconds) { return timers[timer] = seconds, *this; }
    Heartbeat &failures_become(int n) { return failures_after = n, *this; }

    int type;
    const char *reply;  // null: time-out
    int failures = 0, firsthb = 0, result = 0;
    const char *status = nullptr;  // reported, or null for none
    std::map<int, int> timers;
    int failures_after = 0, firsthb_after = 0;
};

TEST_F(ReplyProcess, HeartbeatOutcomes) {
    const int manage = QDQ_PLAT_MANAGE, plugin = QDQ_PLAT_PLUGIN;
    using namespace qdq;
    const Heartbeat cases[] = {
        Heartbeat(manage, nullptr).first_unanswered().gives(-1).reports("2 try_connect_failed -1")
            .arms(kTimerManageHeartbeat, 1).failures_become(1),
        Heartbeat(manage, nullptr).failed_before(2).first_unanswered().gives(-1)  // third in a row: connect anew
            .reports("2 try_connect_failed -1").arms(kTimerConnectManage, 1),
        Heartbeat(manage, "not json").failed_before(1).gives(-1).reports("2 try_connect_failed -1")
            .arms(kTimerManageHeartbeat, 1).failures_become(2),
        Heartbeat(plugin, nullptr).gives(-1).reports("3 disconnect -1").arms(kTimerPluginDisconnect, 2)
            .arms(kTimerConnectPlugin, 5),
        Heartbeat(manage, "{\"Result\":-3}").failed_before(1).first_unanswered().gives(-3)
            .arms(kTimerConnectManage, 1).failures_become(1),
        // the manage platform, also for plugin
        Heartbeat(plugin, "{\"Result\":-5}").gives(-5).arms(kTimerConnectManage, 1),
        Heartbeat(plugin, "{\"Result\":-6}").gives(-6).arms(kTimerConnectPlugin, 1),
        Heartbeat(manage, "{\"Result\":-6}").gives(-6),  // the cycle stops
        Heartbeat(manage, "{\"Result\":0,\"Interval\":30}").failed_before(2).first_unanswered().first_answered_now()
            .reports("2 wait_heatbeat 0").arms(kTimerManageHeartbeat, 30),
        Heartbeat(manage, "{\"Result\":1}").first_unanswered().gives(1).reports("2 wait_heatbeat 1")
            .arms(kTimerManageHeartbeat, 60),
        Heartbeat(plugin, "{\"Result\":0}").reports("3 wait_heatbeat 0").arms(kTimerPluginHeartbeat, 60),
        // an interval below 1 s: the platform's default, never a dead cycle
        Heartbeat(manage, "{\"Result\":0,\"Interval\":0}").reports("2 wait_heatbeat 0").arms(kTimerManageHeartbeat, 60),
        Heartbeat(plugin, "{\"Result\":0,\"Interval\":-5}").reports("3 wait_heatbeat 0").arms(kTimerPluginHeartbeat, 20),
        Heartbeat(plugin, "{\"Result\":0,\"Interval\":null}").reports("3 wait_heatbeat 0")
            .arms(kTimerPluginHeartbeat, 20),
    };
    for (const Heartbeat &c : cases) {
        SCOPED_TRACE(std::to_string(c.type) + " " + (c.reply ? c.reply : "timeout"));
        SetUp();
        platinfo *rec = getPlatInfo(c.type);
        rec->interval = 60;
        rec->hbfailnum = static_cast<signed char>(c.failures);
        rec->firsthb = static_cast<unsigned>(c.firsthb);
        const int reply_timeout = c.type == manage ? kTimerManageHbTimeout : kTimerPluginHbTimeout;
        AppTimerCreate(20, reply_timeout, 0, QdTimeoutHandle);
        EXPECT_EQ(ProcessHeartBeatReply(c.reply, c.type), c.result);
        std::map<int, int> timers = c.timers;
        if (c.reply == nullptr) timers[reply_timeout] = 20;  // a time-out leaves it alone
        EXPECT_EQ(all_armed(), timers);
        EXPECT_EQ(g_status, c.status ? Lines{c.status} : Lines{});
        EXPECT_EQ(rec->hbfailnum, c.failures_after);
        EXPECT_EQ(rec->firsthb, static_cast<unsigned>(c.firsthb_after));
    }
    EXPECT_FALSE(qdq_test::read_file(qdq_test::in_root("/var/plug_heart_beat_time_file")).empty());
    EXPECT_EQ(ProcessHeartBeatReply("{\"Result\":0}", QDQ_PLAT_CUBE), -1);
}

TEST_F(ReplyProcess, RegisterReplyAddresses) {
    manageplatinfo.port = 60001;
    std::snprintf(manageplatinfo.MgtURL, 128, "10.0.0.9");
    std::snprintf(pluginplatinfo.MgtURL, 128, "10.0.0.7");
    pluginplatinfo.port = 70;
    EXPECT_EQ(ProcessRegReply(R"({"Result":2,"Interval":33,"HeartbeatIPAddr":"10.0.0.1:9000",
        "PluginServer":"10.0.0.7:70","ServerAddr":"10.0.0.9","ServerPort":"60001"})", &manageplatinfo), 2);
    EXPECT_EQ(manageplatinfo.interval, 33u);
    EXPECT_STREQ(manageplatinfo.heartbeatip, "10.0.0.1");
    EXPECT_EQ(manageplatinfo.heartbeatport, 9000u);
    // The same plugin server is connected again all the same.
    EXPECT_EQ(manageplatinfo.nexttimer, qdq::kTimerConnectPlugin);
    EXPECT_EQ(all_armed(), (std::map<int, int>{{qdq::kTimerConnectPlugin, 3}}));
    EXPECT_TRUE(qdq_test::platform().setcfg.empty());  // nothing changed

    EXPECT_EQ(ProcessRegReply(R"({"Result":2,"HeartbeatIPAddr":"hb.example","ServerAddr":"10.0.0.8",
        "ServerPort":"60009"})", &manageplatinfo), 2);
    EXPECT_STREQ(manageplatinfo.heartbeatip, "hb.example");
    EXPECT_EQ(manageplatinfo.heartbeatport, 60001u);
    EXPECT_EQ(manageplatinfo.port, 60009u);
    EXPECT_EQ(qdq_test::platform().setcfg.size(), 2u);
    EXPECT_EQ(ProcessRegReply("{\"Interval\":5}", &manageplatinfo), -1);
}

TEST_F(ReplyProcess, BrokenAddressesPortsAndIntervalsLeaveTheConfiguredOnes) {
    struct {
        const char *reply;
        const char *manage;  // "MgtURL:port heartbeatip:heartbeatport interval"
        std::vector<std::string> written;
    } cases[] = {
        {R"({"Result":2,"ServerAddr":"10.0.0.8\n[evil]","ServerPort":null,"Interval":0})",
         "10.0.0.9:60001 10.0.0.1:9000 60", {}},
        {R"({"Result":2,"ServerAddr":"[evil]","ServerPort":99999,"HeartbeatIPAddr":"a\rb:9"})",
         "10.0.0.9:60001 10.0.0.1:9000 33", {}},
        {R"({"Result":2,"ServerAddr":7,"ServerPort":"0","HeartbeatIPAddr":"10.0.0.2:0","Interval":-5})",
         "10.0.0.9:60001 10.0.0.1:9000 60", {}},
        {R"({"Result":2,"ServerPort":"6x","HeartbeatIPAddr":"10.0.0.2:70000","PluginServer":"p q:80"})",
         "10.0.0.9:60001 10.0.0.1:9000 33", {}},
        {R"({"Result":2,"ServerAddr":"[fd00::8]","ServerPort":60002.5,"MessageServer":"m\t:1"})",
         "[fd00::8]:60001 10.0.0.1:9000 33", {"manageplataddr [fd00::8]"}},
        {R"({"Result":2,"ServerAddr":"gw-2.example","ServerPort":60009,"HeartbeatIPAddr":"hb_1.example"})",
         "gw-2.example:60009 hb_1.example:60001 33", {"manageplataddr gw-2.example", "manageplatport 60009"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.reply);
        SetUp();
        std::snprintf(manageplatinfo.MgtURL, 128, "10.0.0.9");
        std::snprintf(manageplatinfo.heartbeatip, 64, "10.0.0.1");
        std::snprintf(pluginplatinfo.MgtURL, 128, "10.0.0.7");
        std::snprintf(messageserver.addr, 64, "10.0.0.6");
        manageplatinfo.port = 60001, manageplatinfo.heartbeatport = 9000, manageplatinfo.interval = 33;
        EXPECT_EQ(ProcessRegReply(c.reply, &manageplatinfo), 2);
        char got[256];
        std::snprintf(got, sizeof got, "%s:%u %s:%u %u", manageplatinfo.MgtURL, manageplatinfo.port,
                      manageplatinfo.heartbeatip, manageplatinfo.heartbeatport, manageplatinfo.interval);
        EXPECT_STREQ(got, c.manage);
        EXPECT_STREQ(pluginplatinfo.MgtURL, "10.0.0.7");
        EXPECT_STREQ(messageserver.addr, "10.0.0.6");
        std::vector<std::string> written;
        for (const std::string &w : qdq_test::platform().setcfg) written.push_back(w.substr(w.find(' ') + 1));
        EXPECT_EQ(written, c.written);
    }
}

TEST_F(ReplyProcess, UnchangedStatusIsNotReported) {
    HgSetPlateStatus(2, "connected", 1);
    HgSetPlateStatus(2, "connected", 5);
    HgSetPlateStatus(4, "connected", 1);
    EXPECT_EQ(g_status, Lines{"2 connected 1"});
}

}  // namespace
