// Sessions over real frames between two network namespaces.
#include "network.hpp"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <set>
#include <sstream>
#include <thread>

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <linux/if_vlan.h>
#include <linux/sockios.h>

// Stands before the C library's, for the library under test too. 0: every question goes to the kernel.
static std::atomic<uint16_t> every_interface_is_of_vlan{0};

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list args;
    va_start(args, request);
    void *argument = va_arg(args, void *);
    va_end(args);
    if (request == SIOCGIFVLAN && every_interface_is_of_vlan != 0) {
        static_cast<vlan_ioctl_args *>(argument)->u.VID = every_interface_is_of_vlan;
        return 0;
    }
    return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}
// Its name for programs whose times have 64 bits where a long has 32.
extern "C" int __ioctl_time64(int fd, unsigned long request, ...) noexcept __attribute__((alias("ioctl")));

namespace
{

using net::Cable;
using net::Capture;
using net::count_of;
using net::FarEnd;
using net::NetworkTest;
using net::results_of;
using net::run;
using net::wait_for;
using Bytes = std::vector<uint8_t>;

class Session : public NetworkTest
{
};

bool answered(uint32_t session, size_t times)
{
    return wait_for([=] { return count_of(session, SUPERVISION_ANSWERED) >= times; });
}

bool lost(uint32_t session, size_t times)
{
    return wait_for([=] { return count_of(session, SUPERVISION_LOST) >= times; });
}

Bytes first_bytes(const Bytes &frame, size_t count)
{
    return {frame.begin(), frame.begin() + static_cast<ptrdiff_t>(count)};
}

uint64_t requests_of(const FarEnd &far, uint16_t vlan)
{
    uint64_t requests = 0;
    for (const far_end_counters &c : far.counters()) {
        requests += c.vlan == vlan ? c.requests : 0;
    }
    return requests;
}

TEST_F(Session, IsAnsweredWithARoundTrip)
{
    lay_cable();
    const FarEnd far({"far0"});
    const uint32_t session = start(params());
    ASSERT_TRUE(answered(session, 2));
    for (const net::Result &r : results_of(session)) {
        EXPECT_EQ(r.result, SUPERVISION_ANSWERED);
        EXPECT_TRUE(r.has_rtt);
        EXPECT_EQ(r.rtt.sec, 0u);
        EXPECT_GT(r.rtt.nsec, 0u);
    }
    const auto counters = far.counters();
    ASSERT_EQ(counters.size(), 1u);
    EXPECT_EQ(counters[0].interface, "far0");
    EXPECT_EQ(counters[0].vlan, 100);
    EXPECT_TRUE(mac_equal(counters[0].peer, net::NEAR_MAC));
    EXPECT_GE(counters[0].answered, 2u);
}

TEST_F(Session, PutsTheTagOnTheWireExactlyOnce)
{
    lay_cable();
    const FarEnd far({"far0"});
    Capture capture("far", "far0");
    const uint32_t session = start(params());
    ASSERT_TRUE(answered(session, 1));
    const auto frames = capture.stop(2);
    ASSERT_GE(frames.size(), 2u);
    // Destination, source, tag, EtherType, revision 1, type 5, payload of 46 bytes, and the first id, whatever it is.
    const uint8_t id = frames[0][22];
    const Bytes request{0x02, 0,    0,    0,    0,    2,    0x02, 0, 0, 0,  0,  1,
                        0x81, 0x00, 0xE0, 0x64, 0xAE, 0xFE, 0x10, 5, 0, 46, id, 0};
    const Bytes answer{0x02, 0,    0,    0,    0,    1,    0x02, 0, 0, 0,  0,  2,
                       0x81, 0x00, 0xE0, 0x64, 0xAE, 0xFE, 0x10, 5, 0, 46, id, 2};
    EXPECT_EQ(first_bytes(frames[0], 24), request);
    EXPECT_EQ(frames[0].size(), 68u);
    EXPECT_EQ(first_bytes(frames[1], 24), answer);
    EXPECT_EQ(frames[1].size(), 68u);
}

// The kernel's answer to one question is replaced: that near0 is the device of VLAN 100. It adds no tag then, so none
// may be on the wire, and the answer comes without.
TEST_F(Session, AddsNoTagOnAnInterfaceThatSaysItIsTheDeviceOfThatVlan)
{
    lay_cable();
    const FarEnd far({"far0"});
    Capture capture("far", "far0");
    every_interface_is_of_vlan = 100;
    const uint32_t session = start(params());
    every_interface_is_of_vlan = 0;
    ASSERT_TRUE(answered(session, 1));
    const auto frames = capture.stop(2);
    ASSERT_GE(frames.size(), 2u);
    const Bytes request{0x02, 0, 0, 0, 0, 2, 0x02, 0, 0, 0, 0, 1, 0xAE, 0xFE, 0x10, 5, 0, 46, frames[0][18], 0};
    EXPECT_EQ(first_bytes(frames[0], 20), request);
    EXPECT_EQ(frames[0].size(), 64u);
}

TEST_F(Session, AddsItsTagOnTheDeviceOfAnotherVlan)
{
    lay_cable();
    const FarEnd far({"far0"});
    every_interface_is_of_vlan = 200;
    const uint32_t session = start(params());
    every_interface_is_of_vlan = 0;
    ASSERT_TRUE(answered(session, 1));
    EXPECT_GE(requests_of(far, 100), 1u);
}

TEST_F(Session, PutsTheTagOfARealVlanDeviceOnTheWireExactlyOnce)
{
    lay_cable();
    if (system("ip link add link near0 name near0.100 type vlan id 100 2>/dev/null") != 0) {
        GTEST_SKIP() << "this kernel has no VLAN devices";
    }
    run("ip link set near0.100 up");
    const FarEnd far({"far0"});
    Capture capture("far", "far0");
    supervision_params p = params();
    strcpy(p.if_name, "near0.100");
    const uint32_t session = start(p);
    ASSERT_TRUE(answered(session, 1));
    const auto frames = capture.stop(2);
    ASSERT_GE(frames.size(), 2u);
    // The device gives its tag the priority of the socket, which is none.
    const Bytes tag{0x81, 0x00, 0x00, 0x64, 0xAE, 0xFE};
    EXPECT_EQ(Bytes(frames[0].begin() + 12, frames[0].begin() + 18), tag);
}

TEST_F(Session, IsDecodedByTsharkWithoutAComplaint)
{
    lay_cable();
    const FarEnd far({"far0"});
    Capture capture("", "near0");
    supervision_params p = params();
    const uint32_t small = start(p);
    p.frameSize = 1500;
    const uint32_t big = start(p);
    p.frameSize = 38;
    const uint32_t smallest = start(p);
    ASSERT_TRUE(answered(small, 1) && answered(big, 1) && answered(smallest, 1));
    capture.stop(6);
    const std::string decoded = run("tshark -r " + capture.file() +
                                    " -T fields -E separator=, -e eth.type -e vlan.id -e ecpri.type -e ecpri.actiontype"
                                    " -e ecpri.size -e frame.protocols -e _ws.malformed -e _ws.expert.message");
    std::istringstream lines(decoded);
    std::multiset<std::string> seen;
    for (std::string line; std::getline(lines, line);) {
        if (line.find("0x05") != std::string::npos) {
            seen.insert(line);
        }
    }
    for (const char *size : {"20", "46", "1482"}) {
        for (const char *action : {"0x00", "0x02"}) {
            const std::string line =
                std::string("0x8100,100,0x05,") + action + ',' + size + ",eth:ethertype:vlan:ethertype:ecpri,,";
            EXPECT_GE(seen.count(line), 1u) << line << "\nin\n" << decoded;
            seen.erase(line);
        }
    }
    EXPECT_TRUE(seen.empty()) << decoded;
}

TEST_F(Session, SendsFramesOfTheSizeAskedFor)
{
    lay_cable();
    const FarEnd far({"far0"});
    for (const uint16_t size : std::vector<uint16_t>{64, 1500, 1514}) {
        Capture capture("far", "far0");
        supervision_params p = params();
        p.frameSize = size;
        const uint32_t session = start(p);
        ASSERT_TRUE(answered(session, 1)) << size;
        const auto frames = capture.stop(2);
        ASSERT_GE(frames.size(), 2u);
        EXPECT_EQ(frames[0].size(), size + 4u);
        EXPECT_EQ(frames[1].size(), size + 4u);
        stop(session);
    }
}

TEST_F(Session, ReportsSixLostWhenTheFarEndIsSilentAndAnswersWhenItIsBack)
{
    lay_cable();
    const FarEnd far({"far0"});
    const uint32_t session = start(params());
    ASSERT_TRUE(answered(session, 1));
    far.set({.silent = true});
    ASSERT_TRUE(lost(session, 6));
    far.set({});
    const size_t before = count_of(session, SUPERVISION_ANSWERED);
    ASSERT_TRUE(answered(session, before + 1));
    for (const net::Result &r : results_of(session)) {
        EXPECT_EQ(r.has_rtt, r.result == SUPERVISION_ANSWERED);
    }
    const auto all = results_of(session);
    const auto first =
        std::find_if(all.begin(), all.end(), [](const net::Result &r) { return r.result == SUPERVISION_LOST; });
    ASSERT_GE(all.end() - first, 7);
    for (auto r = first; r != first + 6; ++r) {
        EXPECT_EQ(r->result, SUPERVISION_LOST);
    }
}

// A session that is answered, loses two requests while the link is cut, and is answered again once it is mended.
class CutLink : public Session
{
protected:
    void expect_back(const supervision_params &p, const std::string &cut, const std::string &mend)
    {
        const FarEnd far({"far0"});
        const uint32_t session = start(p);
        ASSERT_TRUE(answered(session, 1));
        run(cut);
        ASSERT_TRUE(lost(session, 2));
        run(mend);
        const size_t before = count_of(session, SUPERVISION_ANSWERED);
        EXPECT_TRUE(answered(session, before + 2));
    }
};

TEST_F(CutLink, ComesBackAfterItsInterfaceWasDown)
{
    lay_cable();
    expect_back(params(), "ip link set near0 down", "ip link set near0 up");
}

TEST_F(CutLink, ComesBackAfterTheCableWasPulled)
{
    lay_cable();
    expect_back(params(), "ip -n far link set far0 down", "ip -n far link set far0 up");
}

TEST_F(CutLink, FindsAnInterfaceThatWasDeletedAndCameBackUnderItsName)
{
    lay_cable();
    supervision_params p = params();
    memcpy(p.src_mac, net::APP_MAC.byte, sizeof p.src_mac);
    expect_back(p, "ip link del near0",
                "ip link add name near0 type veth peer name far0 address 02:00:00:00:00:02 netns far && "
                "ip link set near0 up && ip -n far link set far0 up");
    EXPECT_NE(run("bridge fdb show dev near0").find("02:00:00:00:0a:01"), std::string::npos);
}

TEST_F(CutLink, ReportsLossBehindABridgeThatDropsSilently)
{
    lay_cable(Cable::THROUGH_BRIDGE);
    expect_back(params(), "ip -n mid link set m1 nomaster && ip -o link show near0 | grep 'state UP'",
                "ip -n mid link set m1 master bridge0");
}

TEST_F(Session, KeepAliveFromAnApplicationAddressIsOnlyEverTwoOrThree)
{
    lay_cable();
    const FarEnd far({"far0"});
    supervision_params p = params();
    p.sup_type = SUPERVISION_TYPE_KEEP_ALIVE;
    memcpy(p.src_mac, net::APP_MAC.byte, sizeof p.src_mac);
    const uint32_t session = start(p);
    ASSERT_TRUE(wait_for([=] { return count_of(session, SUPERVISION_KEEP_ALIVE_OK) >= 1; }));
    far.set({.unusable_time = true});
    ASSERT_TRUE(wait_for([=] { return count_of(session, SUPERVISION_KEEP_ALIVE_OK) >= 3; }));
    far.set({.silent = true});
    ASSERT_TRUE(lost(session, 1));
    EXPECT_EQ(count_of(session, SUPERVISION_KEEP_ALIVE_OK) + count_of(session, SUPERVISION_LOST),
              results_of(session).size());
    EXPECT_TRUE(mac_equal(far.counters()[0].peer, net::APP_MAC));
}

// A veth takes in everything. A real card takes in what stands in the device's list of addresses.
TEST_F(Session, HasTheInterfaceTakeInAnswersToAnApplicationAddressWhileItRuns)
{
    lay_cable();
    const auto taken_in = [] {
        return run("bridge fdb show dev near0").find("02:00:00:00:0a:01") != std::string::npos;
    };
    supervision_params p = params();
    memcpy(p.src_mac, net::APP_MAC.byte, sizeof p.src_mac);
    const uint32_t session = start(p);
    const uint32_t twin = start(p);
    EXPECT_TRUE(taken_in());
    stop(session);
    EXPECT_TRUE(taken_in());
    stop(twin);
    EXPECT_FALSE(taken_in());
}

TEST_F(Session, GivesResultOneWithoutRoundTripWhenTheTimeIsNotUsable)
{
    lay_cable();
    const FarEnd far({"far0"});
    far.set({.unusable_time = true});
    const uint32_t session = start(params());
    ASSERT_TRUE(wait_for([=] { return count_of(session, SUPERVISION_ANSWERED_NO_TIME) >= 1; }));
    EXPECT_FALSE(results_of(session)[0].has_rtt);
}

TEST_F(Session, MeasuresTheDelayOfTheFarEnd)
{
    lay_cable();
    const FarEnd far({"far0"});
    far.set({.delay_us = 20000});
    const uint32_t session = start(params());
    ASSERT_TRUE(answered(session, 2));
    for (const net::Result &r : results_of(session)) {
        EXPECT_GE(r.rtt.nsec, 20000000u);
    }
}

TEST_F(Session, DropsExactlyTheNextRequestsItWasToldTo)
{
    lay_cable();
    const FarEnd far({"far0"});
    far.set({.drop_next = 2});
    const uint32_t session = start(params());
    ASSERT_TRUE(answered(session, 1));
    EXPECT_EQ(count_of(session, SUPERVISION_LOST), 2u);
    EXPECT_EQ(far.counters()[0].dropped, 2u);
}

TEST_F(Session, LosesAboutAsManyRequestsByChanceAsItWasToldTo)
{
    lay_cable();
    const FarEnd far({"far0"});
    far.set({.loss_percent = 30});
    for (uint32_t i = 0; i < 300; i++) {
        supervision_params p = params();
        p.vlantag = 0x8100E000 | (i + 1);
        start(p);
    }
    far_end_counters sum{};
    ASSERT_TRUE(wait_for([&] {
        sum = {};
        for (const far_end_counters &c : far.counters()) {
            sum.requests += c.requests;
            sum.dropped += c.dropped;
            sum.answered += c.answered;
        }
        return sum.requests >= 300;
    }));
    EXPECT_GT(sum.dropped, sum.requests / 5);
    EXPECT_LT(sum.dropped, sum.requests * 2 / 5);
    EXPECT_EQ(sum.dropped + sum.answered, sum.requests);
}

TEST_F(Session, StaysInTheNamespaceInWhichItWasStarted)
{
    lay_cable();
    const FarEnd far({"far0"});
    run("ip netns add near && ip link set near0 netns near && ip -n near link set near0 up");
    uint32_t session = 0;
    {
        const net::Inside near("near");
        session = start(params());
    }
    EXPECT_TRUE(answered(session, 2));
}

TEST_F(Session, LetsADeletedNamespaceGoWhenItsLastSessionHasStopped)
{
    lay_cable();
    const FarEnd far({"far0"});
    // A sanitizer's thread of its own starts with the first one of the process and would stay in "near".
    std::thread([] {}).join();
    run("ip netns add near && ip link set near0 netns near && ip -n near link set near0 up");
    uint32_t session = 0;
    {
        const net::Inside near("near");
        session = start(params());
    }
    ASSERT_TRUE(answered(session, 1));
    run("ip netns del near");
    // The cable goes with the namespace; while the session runs, both stay.
    const size_t before = count_of(session, SUPERVISION_ANSWERED);
    ASSERT_TRUE(answered(session, before + 1));
    stop(session);
    EXPECT_TRUE(wait_for([] { return run("ip -n far -br link").find("far0") == std::string::npos; }));
}

TEST_F(Session, ReportsNothingAfterItWasStopped)
{
    lay_cable();
    const FarEnd far({"far0"});
    const uint32_t stopped = start(params());
    const uint32_t other = start(params());
    ASSERT_TRUE(answered(stopped, 1));
    EXPECT_EQ(stop(stopped), 0u);
    const size_t before = results_of(stopped).size();
    ASSERT_TRUE(answered(other, count_of(other, SUPERVISION_ANSWERED) + 2));
    EXPECT_EQ(results_of(stopped).size(), before);
    EXPECT_EQ(stop_supervision_session(stopped), 4u);
}

TEST_F(Session, TwinsBetweenTheSameAddressesAreToldApart)
{
    lay_cable();
    const FarEnd far({"far0"});
    const uint32_t a = start(params());
    const uint32_t b = start(params());
    EXPECT_NE(a, b);
    EXPECT_TRUE(answered(a, 2));
    EXPECT_TRUE(answered(b, 2));
    EXPECT_EQ(count_of(a, SUPERVISION_LOST) + count_of(b, SUPERVISION_LOST), 0u);
}

TEST_F(Session, HundredsInManyVlansAreAllAnsweredAndNoneIsLost)
{
    lay_cable();
    const FarEnd far({"far0"});
    std::vector<uint32_t> sessions;
    for (uint32_t vlan = 1; vlan <= 300; vlan++) {
        supervision_params p = params();
        p.vlantag = 0x8100E000 | vlan;
        sessions.push_back(start(p));
    }
    for (const uint32_t session : sessions) {
        ASSERT_TRUE(answered(session, 2));
    }
    for (const uint32_t session : sessions) {
        EXPECT_EQ(count_of(session, SUPERVISION_LOST), 0u);
    }
}

TEST_F(Session, ManySessionsOfANamespaceShareOneSocket)
{
    lay_cable();
    const FarEnd far({"far0"});
    for (uint32_t vlan = 1; vlan <= 50; vlan++) {
        supervision_params p = params();
        p.vlantag = 0x8100E000 | vlan;
        start(p);
    }
    // A head line, and one line per packet socket of this namespace.
    EXPECT_EQ(run("wc -l < /proc/net/packet"), "2\n");
}

// What is said on stderr while it lives.
class SaidOnStderr
{
public:
    SaidOnStderr() : before_(dup(STDERR_FILENO)), file_(memfd_create("stderr", MFD_CLOEXEC))
    {
        dup2(file_, STDERR_FILENO);
    }
    ~SaidOnStderr()
    {
        dup2(before_, STDERR_FILENO);
        close(before_);
        close(file_);
    }
    SaidOnStderr(const SaidOnStderr &) = delete;
    SaidOnStderr &operator=(const SaidOnStderr &) = delete;
    [[nodiscard]] bool has(const std::string &text) const
    {
        std::string all(65536, '\0');
        const ssize_t got = pread(file_, all.data(), all.size(), 0);
        return got > 0 && all.find(text) < static_cast<size_t>(got);
    }

private:
    int before_;
    int file_;
};

// The library's thread is held up in a callback, while the answer to the request of another session arrives and the
// next turn of that session passes.
class HeldUp : public Session
{
protected:
    static inline std::atomic<int64_t> hold_ms;

    // Returns the session that is watched. The first report of the other one, 300 ms after its request, holds the
    // thread up for `hold_ms`; by then the watched one has sent its own request.
    uint32_t start_both()
    {
        lay_cable();
        far_.emplace(std::vector<std::string>{"far0"});
        far_->set({.delay_us = 300000});
        supervision_params p = params();
        p.vlantag = 0x8100E065;
        EXPECT_EQ(start_supervision_session(&holding_, &p,
                                            [](const supervision_rtt *, uint32_t, uint32_t) {
                                                std::this_thread::sleep_for(
                                                    std::chrono::milliseconds(hold_ms.exchange(0)));
                                            }),
                  0u);
        EXPECT_TRUE(wait_for([&] { return requests_of(*far_, 101) == 1; }));
        return start(params());
    }
    void TearDown() override
    {
        hold_ms = 0;
        EXPECT_EQ(stop(holding_), 0u);
        Session::TearDown();
    }

private:
    std::optional<FarEnd> far_;
    uint32_t holding_ = 0;
};

TEST_F(HeldUp, TakesWhatHasArrivedBeforeItDeclaresAnythingLost)
{
    // Until shortly after the watched session's second request is due: the answer to its first waits in the socket.
    hold_ms = 760;
    const uint32_t watched = start_both();
    ASSERT_TRUE(answered(watched, 3));
    EXPECT_EQ(hold_ms, 0);
    EXPECT_EQ(count_of(watched, SUPERVISION_LOST), 0u);
}

TEST_F(HeldUp, SaysThatItWasLateAndDoesNotBlameTheLink)
{
    const SaidOnStderr said;
    const uint32_t watched = start_both();
    // It does not say so more often than every ten seconds, and something else may have made it late before.
    ASSERT_TRUE(wait_for(
        [&] {
            hold_ms = 1700;
            return said.has("WARNING: Supervision ran ") && said.has(" ms late. Requests sent late: ");
        },
        30));
    hold_ms = 0;
    ASSERT_TRUE(answered(watched, 3));
    EXPECT_EQ(count_of(watched, SUPERVISION_LOST), 0u);
}

TEST_F(Session, RefusesAnInterfaceThatIsNotThere)
{
    supervision_params p = params();
    uint32_t session = 77;
    EXPECT_EQ(start_supervision_session(&session, &p, [](const supervision_rtt *, uint32_t, uint32_t) {}), 1u);
    EXPECT_EQ(session, 77u);
}

TEST_F(Session, RefusesParametersThatMakeNoFrame)
{
    lay_cable();
    const auto refused = [](const std::function<void(supervision_params &)> &change) {
        supervision_params p = params();
        change(p);
        uint32_t session = 77;
        const uint32_t result =
            start_supervision_session(&session, &p, [](const supervision_rtt *, uint32_t, uint32_t) {});
        return result == 3 && session == 77;
    };
    EXPECT_TRUE(refused([](supervision_params &p) { p.interval = 0; }));
    EXPECT_TRUE(refused([](supervision_params &p) { p.sup_type = 3; }));
    EXPECT_TRUE(refused([](supervision_params &p) { p.frameSize = 37; }));
    EXPECT_TRUE(refused([](supervision_params &p) { p.frameSize = 1515; }));
    EXPECT_TRUE(refused([](supervision_params &p) { p.ether_type = 46; }));
    EXPECT_TRUE(refused([](supervision_params &p) { p.vlantag = 100; }));
    EXPECT_TRUE(refused([](supervision_params &p) { p.if_name[0] = '\0'; }));
    EXPECT_TRUE(refused([](supervision_params &p) { memset(p.if_name, 'x', sizeof p.if_name); }));
    EXPECT_TRUE(refused([](supervision_params &p) { p.src_mac[0] = 0x01; }));
    EXPECT_TRUE(refused([](supervision_params &p) { p.dest_mac[0] = 0xFF; }));
    EXPECT_EQ(start_supervision_session(nullptr, nullptr, nullptr), 3u);
}

TEST_F(Session, OfAProcessWithoutTheRightToOpenSocketsIsRefused)
{
    lay_cable();
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(setuid(65534) == 0 &&
                      [] {
                          supervision_params p = params();
                          uint32_t session = 0;
                          return start_supervision_session(&session, &p,
                                                           [](const supervision_rtt *, uint32_t, uint32_t) {});
                      }() == 2
                  ? 0
                  : 1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST_F(Session, StoppedFromItsOwnCallbackIsRefusedInsteadOfWaitingForItself)
{
    lay_cable();
    const FarEnd far({"far0"});
    static std::atomic<uint32_t> result;
    result = 99;
    supervision_params p = params();
    uint32_t session = 0;
    ASSERT_EQ(start_supervision_session(
                  &session, &p,
                  [](const supervision_rtt *, uint32_t id, uint32_t) { result = stop_supervision_session(id); }),
              0u);
    EXPECT_TRUE(wait_for([] { return result == 1; }));
    EXPECT_EQ(stop(session), 0u);
}

// How often the library's thread gave up the processor to wait.
uint64_t wakes_of_the_thread()
{
    const std::string text = run("cat $(grep -l '^supervision$' /proc/" + std::to_string(getpid()) +
                                 "/task/*/comm | sed 's/comm$/status/') | grep ^voluntary");
    return std::stoull(text.substr(text.find(':') + 1));
}

TEST_F(Session, LeavesTheThreadAsleepWhenThereIsNone)
{
    lay_cable();
    const uint32_t session = start(params());
    stop(session);
    // The thread has taken note of the end once its count stands still; then it must stand still for good.
    uint64_t last = 0;
    ASSERT_TRUE(wait_for([&] {
        const uint64_t now = wakes_of_the_thread();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return now == std::exchange(last, now);
    }));
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_EQ(wakes_of_the_thread(), last);
}

} // namespace
