// The whole node under the packaged policy, every program under its own user; and strangers who are let in by the
// registry, but not through the daemon's door.
#include <fstream>
#include <sstream>

#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "e2e.hpp"
#include "link_list/link_list.hpp"
#include "support/private_etc.hpp"
#include "support/unit_file.hpp"

using namespace std::chrono_literals;

namespace
{

namespace fs = std::filesystem;

constexpr const char *PACKAGING = KAP_SOURCE_DIR "/packaging/";
constexpr const char *POLICY = "/etc/kap-itc/policy.d";

constexpr const char *ALL_READ = "the daemon has read it all\n";

const std::vector<private_user> USERS = {
    {"kap-itc", 64001}, {"kap-vorn", 64002}, {"kap-linkd", 64003}, {"kap-admin", 64004}, {"kap-iepcsi", 64005},
    {"kap-pmi", 64006}, {"kap-emi", 64007},  {"kap-fmi", 64008},   {"kap-aasi", 64009},  {"mallory", 64010},
};

unsigned id_of(const std::string &name)
{
    return std::find_if(USERS.begin(), USERS.end(), [&](const auto &u) { return u.name == name; })->id;
}

std::vector<std::string> as_user(const std::string &user, const std::string &capabilities)
{
    const std::string id = std::to_string(id_of(user));
    std::vector<std::string> words = {"setpriv", "--reuid", id, "--regid", id, "--clear-groups"};
    if (!capabilities.empty()) {
        words.insert(words.end(), {"--inh-caps", capabilities, "--ambient-caps", capabilities});
    }
    return words;
}

bool has_other_users()
{
    std::ifstream map("/proc/self/uid_map");
    uint64_t inside = 0;
    uint64_t outside = 0;
    uint64_t count = 0;
    return map >> inside >> outside >> count && count > id_of("mallory");
}

class PackagedPolicy : public EndToEnd
{
protected:
    void SetUp() override
    {
        EndToEnd::SetUp();
        if (!has_other_users()) {
            GTEST_SKIP() << "there are no other users in this user namespace";
        }
        private_etc_make(USERS);
        d.stage.bin_dir = programs_for_everybody(d.stage.bin_dir);
        make_directory("/run/kap-itc", "kap-itc");
        make_directory("/run/kap-tri", "kap-vorn");
        fs::create_directories(POLICY);
        fs::copy(std::string(PACKAGING) + "policy.d", POLICY);
        std::ofstream(std::string(POLICY) + "/test.toml") << "[connect]\nusers = [\"mallory\"]\n";
        d.stage.launchers[REGISTRY] = unit_launcher(unit_read(std::string(PACKAGING) + "systemd/kap-itcd.service"));
        d.stage.launchers[DAEMON] = unit_launcher(unit_read(std::string(PACKAGING) + "systemd/kap-vorn.service"));
        for (const char *service : {"pmi", "emi", "fmi", "aasi"}) {
            d.stage.launchers[service] = as_user(std::string("kap-") + service, "");
        }
        d.stage.launchers["iepcsi"] = as_user("kap-iepcsi", "+sys_admin,+net_admin");
    }

    void TearDown() override
    {
        EndToEnd::TearDown();
        fs::remove_all("/run/kap-itc");
        fs::remove_all("/run/kap-tri");
    }

    static void make_directory(const std::string &path, const std::string &user)
    {
        fs::create_directories(path);
        ASSERT_EQ(chown(path.c_str(), id_of(user), id_of(user)), 0);
        ASSERT_EQ(chmod(path.c_str(), 0755), 0);
    }

    void start_stranger(const std::string &user, const std::string &name, const std::vector<std::string> &words)
    {
        std::vector<std::string> command = as_user(user, "");
        command.insert(command.end(), {d.stage.bin_dir + "/e2e-stranger", name});
        command.insert(command.end(), words.begin(), words.end());
        d.stage.processes[name] = process_start(name, command, d.stage.log_dir + "/" + name + ".log");
    }

    // What such a stranger says for himself when the daemon has read what he sent.
    std::string send_as(const std::string &user, const std::string &name, const std::vector<std::string> &words)
    {
        start_stranger(user, name, words);
        child_process child = std::move(d.stage.processes.extract(name).mapped());
        if (!process_wait(child, 20s * slowness())) {
            process_kill(child);
        }
        return read_log(name);
    }

    bool daemon_refused() const { return read_log(DAEMON).find("libitc: message dropped, ") != std::string::npos; }

    // The client is told nothing, and its requests are answered.
    void expect_no_news()
    {
        EXPECT_EQ(iemli_client_get_mac(d.client, "IDL_A1", 5).outcome, iemli_outcome::confirmed);
        while (const auto event = iemli_client_next_event(d.client, 0)) {
            ADD_FAILURE() << "told " << iemli_client_message_name(event->msgno) << " " << event->text;
        }
    }
};

} // namespace

TEST_F(PackagedPolicy, TheWholeNodeWorksUnderIt)
{
    start();
    for (const iemli_link_wish &wish : {demo_first_wish(d), demo_second_wish(d)}) {
        demo_wait_status(d, demo_create(d, wish).link_ref, IML_LINK_ENABLED, 0, 10s);
    }
    stage_wait(d.stage, "the agent has a path for each link", 10s,
               [] { return stage_control("aasi", {"show"})["paths"].size() == 2; });
    std::string error;
    EXPECT_TRUE(link_list::fetch(5000, &error).has_value()) << error;
    demo_delete_all(d);
    EXPECT_FALSE(daemon_refused()) << read_log(DAEMON);
}

TEST_F(PackagedPolicy, ResultsOfSupervisionFromAStrangerEnableNoLink)
{
    start();
    demo_set_far_end(d, false);
    demo_wait_status(d, demo_create(d, demo_first_wish(d)).link_ref, IML_LINK_DISABLED, IML_LINK_REASON_NO_CONNECTIVITY,
                     10s);
    std::vector<std::string> forged;
    for (int session = 0; session < 16; session++) {
        forged.push_back("0x1B0CE6," + std::to_string(session) + ",0,0,1000");
    }
    EXPECT_EQ(send_as("mallory", "stranger", forged), ALL_READ);
    expect_no_news();
    EXPECT_TRUE(daemon_refused());
}

TEST_F(PackagedPolicy, TheNewsThatServersAreGoneOrThereChangesNothingWhenAStrangerTellsIt)
{
    start();
    demo_wait_status(d, demo_create(d, demo_first_wish(d)).link_ref, IML_LINK_ENABLED, 0, 10s);
    const std::vector<std::string> gone = {"0x1B1002,0,0", "0x1B1042,0,0",        "0x1B0CE4,0,0",
                                           "0x1B0F57,0,0", "0x1900002,1,0,0,0,0", "0x1B0E00,0,0x1"};
    const std::vector<std::string> there = {"0x1B1001,0,0", "0x1B1041,0,0", "0x1B0CE5,0,0", "0x1B0F56,0,0"};
    EXPECT_EQ(send_as("mallory", "one", gone), ALL_READ);
    expect_no_news();
    EXPECT_EQ(send_as("mallory", "another", there), ALL_READ);
    expect_no_news();
    EXPECT_TRUE(daemon_refused());
}

TEST_F(PackagedPolicy, WhatIsLargerThanAMebibyteIsRefusedAndTheSenderIsServedAllTheSame)
{
    start();
    EXPECT_EQ(send_as("mallory", "stranger", {"0x1B0E0B,1,1+0x100001"}), ALL_READ);
    EXPECT_NE(read_log(DAEMON).find("it is larger than its receiver takes"), std::string::npos);
    expect_no_news();
}

TEST_F(PackagedPolicy, AnOperatorAndALinkManagerHaveASessionEachAndAStrangerNone)
{
    constexpr const char *OPENED = "asked for a session, got 0x1b0e04\n";
    constexpr const char *NO_ANSWER = "asked for a session, got 0x1b0ce2\n"; // to the question behind it
    start();
    EXPECT_EQ(send_as("mallory", "stranger", {"open"}).substr(0, strlen(NO_ANSWER)), NO_ANSWER);
    start_stranger("kap-admin", "silent", {"open", "stay"});
    wait_log("silent", "stays");
    EXPECT_EQ(read_log("silent").substr(0, strlen(OPENED)), OPENED);
    EXPECT_EQ(send_as("kap-admin", "second", {"open"}).substr(0, strlen(NO_ANSWER)), NO_ANSWER);
    iemli_client_close(d.client); // this process is root's, and had the link manager's
    EXPECT_EQ(send_as("kap-linkd", "manager", {"open"}).substr(0, strlen(OPENED)), OPENED);
    kill_process("silent");
    ASSERT_EQ(iemli_client_open(d.client).outcome, iemli_outcome::confirmed);
}

TEST_F(PackagedPolicy, ARequestToAServiceOfTheNodeIsTakenFromTheDaemonAlone)
{
    struct service {
        const char *name, *process, *request, *answer;
    };
    constexpr service SERVICES[] = {
        {"iepcsi-server", "iepcsi", "0x1B1043,2,100,1,1,1", "0x1b1044"},
        {"pmi-server", "pmi", "0x1B1003,2,200,1,1", "0x1b1004"},
        {"endpoint_mgr", "emi", "0x1B10C0,2,300,1,1", "0x1b10c1"},
        {"flow-manager", "fmi", "0x1B0F50,2,400,1,1", "0x1b0f51"},
        {"automationagentsi", "aasi", "0x1A00440,2,500,1,1", "0x1a004c0"},
    };
    constexpr const char *TO_THE_QUESTION_BEHIND_IT = "0x1b9001";
    start();
    for (const service &s : SERVICES) {
        const auto got = [&](const char *number) {
            return testing::EndsWith(std::string("asked ") + s.name + ", got " + number + "\n" + ALL_READ);
        };
        const std::string request = std::string(s.name) + ":" + s.request;
        EXPECT_THAT(send_as("kap-admin", "kap-node-ctl-0", {request}), got(TO_THE_QUESTION_BEHIND_IT));
        EXPECT_NE(read_log(s.process).find("libitc: message dropped, "), std::string::npos) << s.name;
        EXPECT_THAT(send_as("kap-vorn", "other", {request}), got(s.answer));
    }
}

TEST_F(PackagedPolicy, AnOperatorMayConnectAndPosesAsNoServerAlsoWhileItIsNotThere)
{
    constexpr const char *REFUSED = "usage: e2e-stranger NAME WORDS..., with a registry\n";
    start();
    EXPECT_EQ(send_as("kap-admin", "operator", {}), ALL_READ);
    const std::vector<std::pair<std::string, std::string>> servers = {
        {"iepcsi", "iepcsi-server"},   {"pmi", "pmi-server"},         {"emi", "endpoint_mgr"}, {"fmi", "flow-manager"},
        {"aasi", "automationagentsi"}, {FAR_END, "kap-node-far-end"}, {DAEMON, "kap-vorn"},
    };
    for (const auto &[process, name] : servers) {
        kill_process(process);
        EXPECT_THAT(send_as("kap-admin", name, {}), testing::EndsWith(REFUSED)) << name;
    }
    for (const char *other : {"kap-pmi", "kap-vorn"}) {
        EXPECT_THAT(send_as(other, "iepcsi-server", {}), testing::EndsWith(REFUSED)) << other;
    }
}
