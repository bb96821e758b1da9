// kap-responder on the far side of a cable, with real sessions of the supervision library on the near one.
#include "network.hpp"
#include "process.hpp"
#include "slowness.hpp"
#include "stranger.hpp"

#include <gmock/gmock.h>

#include <sys/un.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>

namespace
{

using namespace std::chrono_literals;
using net::count_of;
using net::NetworkTest;
using net::run;
using net::Stranger;
using net::wait_for;
using net::Written;
using testing::HasSubstr;
using testing::Not;

constexpr const char *LOG = "/run/responder.log";

std::string text_of(const std::string &path)
{
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

size_t times(const std::string &text, const std::string &what)
{
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        count++;
    }
    return count;
}

bool says(const std::string &what, size_t at_least = 1)
{
    return wait_for([&] { return times(text_of(LOG), what) >= at_least; });
}

bool answered(uint32_t session, size_t more)
{
    const size_t before = count_of(session, SUPERVISION_ANSWERED);
    return wait_for([=] { return count_of(session, SUPERVISION_ANSWERED) >= before + more; }, 20);
}

class Responder : public NetworkTest
{
protected:
    void TearDown() override
    {
        NetworkTest::TearDown();
        if (child_) {
            process_kill(*child_);
        }
    }

    // Starts it with these words, behind a command where one is given.
    void respond(const std::vector<std::string> &words, std::vector<std::string> command = {})
    {
        command.emplace_back(KAP_RESPONDER_PATH);
        command.insert(command.end(), words.begin(), words.end());
        (void)unlink(LOG); // of one before
        child_ = process_start("kap-responder", command, LOG);
    }

    // The usual one: it answers in namespace "far" on far0, and has said so.
    void respond_on_far0(std::vector<std::string> words = {})
    {
        words.insert(words.begin(), {"--netns", "far"});
        words.emplace_back("far0");
        respond(words);
        ASSERT_TRUE(says("far0 is up"));
    }

    std::string end_status(int signal)
    {
        process_signal(*child_, signal);
        return status();
    }

    std::string status()
    {
        EXPECT_TRUE(process_wait(*child_, 10s * slowness()));
        return process_status_text(*child_);
    }

    // What it says of itself when it is asked: the line of all senders.
    std::string totals()
    {
        const size_t before = times(text_of(LOG), " senders: ");
        process_signal(*child_, SIGUSR1);
        EXPECT_TRUE(says(" senders: ", before + 1));
        const std::string log = text_of(LOG);
        const size_t end = log.rfind('\n');
        return log.substr(log.rfind('\n', end - 1) + 1, end - log.rfind('\n', end - 1) - 1);
    }

    static Written request()
    {
        return {.destination = net::FAR_MAC, .source = net::NEAR_MAC, .action = net::REQUEST, .dummies = {}};
    }

    std::optional<child_process> child_;
};

TEST_F(Responder, AnswersSessionsInAVlanAndWithoutOneEachRequestOnce)
{
    lay_cable();
    respond_on_far0();
    net::Capture capture("", "near0");
    supervision_params untagged = params();
    untagged.vlantag = 0;
    const uint32_t in_vlan = start(params());
    const uint32_t without = start(untagged);
    ASSERT_TRUE(answered(in_vlan, 3));
    ASSERT_TRUE(answered(without, 3));
    EXPECT_EQ(count_of(in_vlan, SUPERVISION_LOST), 0u);
    EXPECT_EQ(count_of(without, SUPERVISION_LOST), 0u);
    stop(in_vlan);
    stop(without);
    // A session may end with a request just sent: the capture and the responder see that one and its answer a little
    // later, each in its own time.
    int requests = 0;
    int answers = 0;
    std::string said;
    EXPECT_TRUE(wait_for([&] {
        requests = 0;
        answers = 0;
        for (const auto &frame : capture.frames()) {
            const size_t action = frame[12] == 0x81 ? 23 : 19;
            requests += frame[action] == net::REQUEST ? 1 : 0;
            answers += frame[action] == net::RESPONSE ? 1 : 0;
        }
        said = totals();
        const std::string all = std::to_string(requests);
        return requests >= 6 && answers == requests &&
               said.find("2 senders: " + all + " requests, " + all + " answered, 0 above the bound, 0 not sent") !=
                   std::string::npos;
    })) << requests
        << " requests and " << answers << " answers on the cable; the responder: " << said;
    EXPECT_THAT(text_of(LOG), HasSubstr("far0 VLAN 100 02:00:00:00:00:01: "));
    EXPECT_THAT(text_of(LOG), HasSubstr("far0 VLAN 0 02:00:00:00:00:01: "));
}

TEST_F(Responder, WaitsForAnInterfaceThatVanishesAndReturns)
{
    run("ip netns add far");
    respond({"--netns", "far", "far0"});
    ASSERT_TRUE(says("far0 is not there"));
    run("ip netns add mid; ip link add near0 address 02:00:00:00:00:01 type veth peer name far0 address "
        "02:00:00:00:00:02 netns far && ip link set near0 up && ip -n far link set far0 up");
    ASSERT_TRUE(says("far0 is up, its address is 02:00:00:00:00:02"));
    const uint32_t session = start(params());
    ASSERT_TRUE(answered(session, 2));
    run("ip -n far link set far0 netns mid");
    ASSERT_TRUE(says("far0 is not there", 2));
    run("ip -n mid link set far0 netns far && ip -n far link set far0 up");
    ASSERT_TRUE(says("far0 is up", 2));
    EXPECT_TRUE(answered(session, 2));
    run("ip -n far link set far0 down");
    EXPECT_TRUE(says("far0 is down"));
    run("ip -n far link set far0 up && ip link set near0 down");
    EXPECT_TRUE(says("far0 has no carrier"));
}

TEST_F(Responder, KnowsARenamedInterfaceByItsNewName)
{
    lay_cable();
    respond_on_far0();
    const uint32_t session = start(params());
    ASSERT_TRUE(answered(session, 1));
    run("ip -n far link set far0 down && ip -n far link set far0 name other && ip -n far link set other up");
    ASSERT_TRUE(says("far0 is not there"));
    const size_t losses = count_of(session, SUPERVISION_LOST);
    EXPECT_TRUE(wait_for([&] { return count_of(session, SUPERVISION_LOST) >= losses + 2; }));
}

TEST_F(Responder, AnswersOnTwoInterfacesAndOnNoOther)
{
    lay_cable();
    for (const std::string i : {"1", "2"}) {
        run("ip link add near" + i + " address 02:00:00:00:01:0" + i + " type veth peer name far" + i +
            " address 02:00:00:00:02:0" + i + " netns far && ip link set near" + i + " up && ip -n far link set far" +
            i + " up");
    }
    respond({"--netns", "far", "far0", "far1"});
    ASSERT_TRUE(says("far1 is up"));
    const auto start_on = [this](int i) {
        supervision_params p = params();
        snprintf(p.if_name, sizeof p.if_name, "near%d", i);
        p.src_mac[4] = 1;
        p.src_mac[5] = static_cast<uint8_t>(i);
        p.dest_mac[4] = 2;
        p.dest_mac[5] = static_cast<uint8_t>(i);
        return start(p);
    };
    const uint32_t first = start(params());
    const uint32_t second = start_on(1);
    const uint32_t unlisted = start_on(2);
    EXPECT_TRUE(answered(first, 2));
    EXPECT_TRUE(answered(second, 2));
    EXPECT_TRUE(wait_for([=] { return count_of(unlisted, SUPERVISION_LOST) >= 2; }));
    EXPECT_EQ(count_of(unlisted, SUPERVISION_ANSWERED), 0u);
}

TEST_F(Responder, AnswersInTheNamespaceInWhichItIsStarted)
{
    lay_cable();
    respond({"far0"}, {"ip", "netns", "exec", "far"});
    ASSERT_TRUE(says("far0 is up"));
    EXPECT_TRUE(answered(start(params()), 1));
}

TEST_F(Responder, AnswersWhatIsForItsInterfaceAloneUnlessItIsToldOtherwise)
{
    lay_cable();
    respond_on_far0();
    const Stranger near("", "near0");
    Written elsewhere = request();
    elsewhere.destination = net::OTHER_MAC;
    near.send(frame_of(elsewhere));
    near.send(frame_of(request()));
    ASSERT_TRUE(wait_for([this] { return times(totals(), " 1 answered") == 1; }));
    EXPECT_THAT(totals(), HasSubstr("1 senders: 1 requests, 1 answered"));
    EXPECT_EQ(end_status(SIGTERM), "exit status 0");
    process_kill(*child_);
    respond_on_far0({"--any-address"});
    near.send(frame_of(elsewhere));
    EXPECT_TRUE(wait_for([this] { return times(totals(), " 1 answered") == 1; }));
}

// One asks without end; the other one, once a second, is answered as ever.
TEST_F(Responder, LetsOneWhoFloodsHoldUpNobodyElse)
{
    lay_cable();
    respond_on_far0();
    const uint32_t session = start(params());
    ASSERT_TRUE(answered(session, 1));
    Written flooding = request();
    flooding.source = net::OTHER_MAC;
    const Stranger near("", "near0");
    {
        const net::Flood flood(near, frame_of(flooding));
        ASSERT_TRUE(says("somebody asks too often"));
        EXPECT_TRUE(answered(session, 4));
        EXPECT_EQ(count_of(session, SUPERVISION_LOST), 0u);
        EXPECT_THAT(totals(), HasSubstr("2 senders: "));
    }
    // A line as it begins and one as it ends, none per frame or per second.
    EXPECT_TRUE(wait_for([] { return times(text_of(LOG), "nobody asks too often any more; it were ") == 1; }, 30));
    EXPECT_EQ(times(text_of(LOG), "somebody asks too often"), 1u);
    EXPECT_THAT(totals(), Not(HasSubstr(" 0 above the bound")));
}

// It cannot run for a while, and one has sent more than it can keep: what the other one sent is there all the same.
TEST_F(Responder, KeepsTheRequestsOfOthersApartFromThoseOfOneWhoFloods)
{
    lay_cable();
    respond_on_far0();
    process_signal(*child_, SIGSTOP);
    Written flooding = request();
    flooding.source = net::OTHER_MAC;
    const net::Bytes frame = frame_of(flooding);
    const Stranger near("", "near0");
    constexpr int more_than_fit = 60000;
    for (int i = 0; i < more_than_fit; i++) {
        near.send(frame);
    }
    near.send(frame_of(request()));
    process_signal(*child_, SIGCONT);
    EXPECT_TRUE(says("more requests than can be read: the kernel drops some"));
    (void)totals();
    EXPECT_THAT(text_of(LOG), HasSubstr("far0 VLAN 100 02:00:00:00:00:01: 1 requests, 1 answered"));
}

TEST_F(Responder, AnswersEverythingWhenThereIsNoBound)
{
    lay_cable();
    respond_on_far0({"--rate", "0"});
    const Stranger near("", "near0");
    constexpr int many = 3000; // in much less than a second, and in steps that a queue holds
    for (int i = 1; i <= many; i++) {
        near.send(frame_of(request()));
        if (i % 500 == 0) {
            ASSERT_TRUE(wait_for([&] { return times(totals(), " " + std::to_string(i) + " answered") == 1; }));
        }
    }
    EXPECT_THAT(totals(), HasSubstr(" 0 above the bound"));
}

TEST_F(Responder, AnswersPeersThatAreTooManyToBeCountedOneByOne)
{
    lay_cable();
    respond_on_far0();
    const Stranger near("", "near0");
    constexpr uint32_t many = 65536 + 200;
    Written w = request();
    for (uint32_t i = 1; i <= many; i++) {
        w.source = {
            {0x02, 0x77, 0, static_cast<uint8_t>(i >> 16), static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)}};
        near.send(frame_of(w));
        if (i % 8192 == 0) {
            ASSERT_TRUE(wait_for([&] { return times(totals(), " " + std::to_string(i) + " answered") == 1; }));
        }
    }
    ASSERT_TRUE(wait_for([&] { return times(totals(), " " + std::to_string(many) + " answered") == 1; }));
    EXPECT_THAT(totals(), HasSubstr(" 200 of senders not counted by themselves"));
    EXPECT_TRUE(answered(start(params()), 2));
}

// ---- Rights ----

TEST_F(Responder, NeedsTheRightToOpenPacketSocketsAndGivesItUpAtOnce)
{
    lay_cable();
    respond({"far0"}, {"ip", "netns", "exec", "far", "setpriv", "--reuid", "65534", "--clear-groups", "--inh-caps",
                       "-all,+net_raw", "--ambient-caps", "-all,+net_raw", "--bounding-set", "-all,+net_raw"});
    ASSERT_TRUE(says("far0 is up"));
    EXPECT_TRUE(answered(start(params()), 2));
    const std::string rights = text_of("/proc/" + std::to_string(child_->pid) + "/status");
    EXPECT_THAT(rights, HasSubstr("CapEff:\t0000000000000000"));
    EXPECT_THAT(rights, HasSubstr("CapPrm:\t0000000000000000"));
    EXPECT_THAT(rights, HasSubstr("NoNewPrivs:\t1"));
    EXPECT_EQ(end_status(SIGTERM), "exit status 0");
}

TEST_F(Responder, SaysWhichRightItLacks)
{
    respond({"lo"}, {"setpriv", "--bounding-set", "-net_raw", "--inh-caps", "-net_raw"});
    EXPECT_EQ(status(), "exit status 1");
    EXPECT_THAT(text_of(LOG), HasSubstr("Operation not permitted (CAP_NET_RAW is needed)"));
}

// ---- A service manager ----

class Manager
{
public:
    Manager() : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, "/run/notify");
        EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    }
    ~Manager() { close(fd_); }
    Manager(const Manager &) = delete;
    Manager &operator=(const Manager &) = delete;
    bool hears(const std::string &what) const
    {
        return wait_for([&] {
            char text[64];
            const ssize_t got = recv(fd_, text, sizeof text, 0);
            return got > 0 && std::string(text, static_cast<size_t>(got)) == what;
        });
    }

private:
    int fd_;
};

TEST_F(Responder, TellsAServiceManagerThatItIsReadyAndThenThatItRuns)
{
    lay_cable();
    const Manager manager;
    respond({"--netns", "far", "far0"}, {"env", "NOTIFY_SOCKET=/run/notify", "WATCHDOG_USEC=400000"});
    ASSERT_TRUE(manager.hears("READY=1"));
    EXPECT_TRUE(manager.hears("WATCHDOG=1"));
    EXPECT_TRUE(manager.hears("WATCHDOG=1"));
}

TEST_F(Responder, EndsWithZeroOnSigtermAndSigint)
{
    lay_cable();
    for (const int signal : {SIGTERM, SIGINT}) {
        respond_on_far0();
        EXPECT_EQ(end_status(signal), "exit status 0");
        process_kill(*child_);
    }
}

TEST_F(Responder, EndsWhenItsNamespaceIsDeletedOrMadeAnew)
{
    lay_cable();
    respond_on_far0();
    run("ip netns del far && ip netns add far");
    EXPECT_EQ(status(), "exit status 1");
    EXPECT_THAT(text_of(LOG), HasSubstr("the network namespace \"far\" is gone"));
}

// ---- Wrong use ----

TEST_F(Responder, RefusesACallThatMakesNoSense)
{
    const std::pair<std::vector<std::string>, const char *> calls[] = {
        {{}, "on which interface?"},
        {{"eth0", "eth0"}, "named twice: eth0"},
        {{""}, "no name of an interface"},
        {{"a-name-too-long-"}, "no name of an interface: a-name-too-long-"},
        {{"et/h0"}, "no name of an interface: et/h0"},
        {{"--rate", "-1", "eth0"}, "no number from 0 to 1000000: -1"},
        {{"--rate", "1e3", "eth0"}, "no number from 0 to 1000000: 1e3"},
        {{"--rate", "1000001", "eth0"}, "no number from 0 to 1000000: 1000001"},
        {{"--netns", "../far", "eth0"}, "no name of a namespace: ../far"},
        {{"--rate"}, "a wrong option"},
        {{"--silent", "eth0"}, "a wrong option"},
    };
    for (const auto &[words, complaint] : calls) {
        respond(words);
        EXPECT_EQ(status(), "exit status 2") << complaint;
        EXPECT_THAT(text_of(LOG), HasSubstr(complaint));
        process_kill(*child_);
    }
}

TEST_F(Responder, SaysWhatIsNoEthernetInterfaceAndWhichNamespaceIsNotThere)
{
    respond({"lo"});
    EXPECT_TRUE(says("lo is no Ethernet interface"));
    process_kill(*child_);
    respond({"--netns", "nowhere", "eth0"});
    EXPECT_EQ(status(), "exit status 1");
    EXPECT_THAT(text_of(LOG), HasSubstr("the network namespace \"nowhere\": No such file or directory"));
}

} // namespace
