// Namespaces whose names are not what they should be, or are gone.
#include <csignal>
#include <filesystem>
#include <fstream>

#include <sys/stat.h>

#include "e2e.hpp"
#include "wire_capture.hpp"

using namespace std::chrono_literals;

namespace
{

namespace fs = std::filesystem;

const std::string NAMES = "/run/netns/";
const std::string NEAR = NAMES + NEAR_NAMESPACE;
const std::string KEPT = NAMES + "kept";

class NamespaceName : public EndToEnd
{
protected:
    void TearDown() override
    {
        for (const char *name : {"fifo", "file", "link", "directory"}) { // "ip netns" would wait for the first
            fs::remove(NAMES + name);
        }
        give_name_back();
        EndToEnd::TearDown();
    }

    // The namespace "near" goes on, but nobody finds it any more; and nobody tells the daemon that its port went with
    // the name.
    void take_name_away()
    {
        process_signal(d.stage.processes.at("iepcsi"), SIGSTOP);
        std::ofstream(KEPT) << "";
        command_must({"mount", "--bind", NEAR, KEPT});
        command_must({"umount", NEAR});
    }
    void give_name_back()
    {
        if (!fs::exists(KEPT)) {
            return;
        }
        command_must({"mount", "--bind", KEPT, NEAR});
        command_must({"umount", KEPT});
        fs::remove(KEPT);
        process_signal(d.stage.processes.at("iepcsi"), SIGCONT);
    }
    // A link whose VLAN is in a namespace of that name. What becomes of it, and what the daemon says of the name.
    void expect_refused(const std::string &name, const std::string &why)
    {
        stage_control("iepcsi", {"vlan-add", "TNA", std::to_string(++vlan_), "tn_a", name});
        iemli_link_wish wish = demo_second_wish(d);
        wish.vlan = vlan_;
        const iemli_answer answer = iemli_client_create_link(d.client, wish);
        EXPECT_EQ(answer.outcome, iemli_outcome::rejected) << name;
        EXPECT_EQ(answer.reason, uint32_t{IEMLI_REJ_OTHER_REASON}) << name;
        wait_log(DAEMON, "Unable to open '/var/run/netns/" + name + "' file: " + why);
        wait_log(DAEMON, "Failed to enter " + name + " namespace");
    }
    // Where the daemon and its thread for the pings are.
    std::vector<fs::path> whereabouts()
    {
        std::vector<fs::path> places;
        for (const auto &task : fs::directory_iterator("/proc/" + std::to_string(daemon().pid) + "/task")) {
            places.push_back(fs::read_symlink(task.path() / "ns/net"));
        }
        return places;
    }
    size_t namespaces_open()
    {
        size_t count = 0;
        for (const auto &fd : fs::directory_iterator("/proc/" + std::to_string(daemon().pid) + "/fd")) {
            std::error_code gone;
            count += fs::read_symlink(fd.path(), gone).string().starts_with("net:[") ? 1 : 0;
        }
        return count;
    }

    // From whomever, in whatever VLAN.
    static uint64_t requests_at_the_far_end()
    {
        uint64_t requests = 0;
        const nlohmann::json shown = stage_control(FAR_END, {"show"});
        for (const auto &place : shown["places"]) {
            for (const auto &peer : place["peers"]) {
                requests += peer["requests"].get<uint64_t>();
            }
        }
        return requests;
    }

private:
    uint16_t vlan_ = 300;
};

} // namespace

TEST_F(NamespaceName, IsNoPathAndWhatLiesThereNeitherLeadsAwayNorHoldsTheDaemonUp)
{
    start();
    const auto at_first = whereabouts();
    const size_t open_at_first = namespaces_open();
    ASSERT_EQ(mkfifo((NAMES + "fifo").c_str(), 0600), 0);
    std::ofstream(NAMES + "file") << "nothing";
    fs::create_symlink(NEAR, NAMES + "link");
    ASSERT_TRUE(fs::create_directory(NAMES + "directory"));
    expect_refused("../netns/near", "Invalid argument");
    expect_refused("./near", "Invalid argument");
    expect_refused("/near", "Invalid argument");
    expect_refused("..", "Invalid argument");
    expect_refused(".", "Invalid argument");
    expect_refused("fifo", "Invalid argument");
    expect_refused("file", "Invalid argument");
    expect_refused("directory", "Invalid argument");
    expect_refused("link", "Too many levels of symbolic links");
    expect_refused("nothing", "No such file or directory");

    EXPECT_EQ(whereabouts(), at_first);
    EXPECT_LE(namespaces_open(), open_at_first + 1) << "the last visit that could not be begun keeps one";
    // The good name still works.
    demo_link &link = demo_create(d, demo_first_wish(d));
    demo_wait_status(d, link.link_ref, IML_LINK_ENABLED, 0, 5s);
}

// A machine that has a name for its own namespace has it as such a link.
TEST_F(NamespaceName, MayBeALinkToTheNamespaceThatTheDaemonIsIn)
{
    start();
    const auto at_first = whereabouts();
    const size_t open_at_first = namespaces_open();
    command_must({"ip", "-n", NEAR_NAMESPACE, "link", "set", "tn_a", "netns", std::to_string(getpid())});
    command_must({"ip", "link", "set", "tn_a", "up"});
    fs::create_symlink("/proc/self/ns/net", NAMES + "link");
    iemli_link_wish wish = demo_second_wish(d);
    stage_control("iepcsi", {"vlan-add", "TNA", std::to_string(wish.vlan), "tn_a", "link"});
    EXPECT_EQ(iemli_client_create_link(d.client, wish).outcome, iemli_outcome::confirmed);
    EXPECT_EQ(whereabouts(), at_first);
    EXPECT_LE(namespaces_open(), open_at_first + 1) << "that of the port's socket";
}

TEST_F(NamespaceName, ThatIsGoneKeepsNoPingsGoingForALinkThatIsDeleted)
{
    start();
    const stage_port &port = d.stage.ports.front();
    wire_capture capture = capture_open(NEAR_NAMESPACE, port.wire.interface, port.wire.near_mac, port.wire.far_mac,
                                        demo_first_wish(d).vlan);
    demo_link &link = demo_create(d, demo_first_wish(d));
    ASSERT_FALSE(link.wish.app_links.empty()) << "keep-alives too";
    demo_wait_status(d, link.link_ref, IML_LINK_ENABLED, 0, 5s);
    take_name_away();
    const uint64_t requests = requests_at_the_far_end();
    EXPECT_GT(requests, 0u);
    EXPECT_EQ(iemli_client_delete_link(d.client, link.link_ref).outcome, iemli_outcome::confirmed);
    wait_log(DAEMON, "Failed to enter near namespace");
    capture_drain(capture);
    const size_t pings = capture.pings.size();
    const uint64_t asked = requests_at_the_far_end();
    EXPECT_GT(pings, 0u);
    demo_listen(d, 6s); // six pings, and a keep-alive of each app link, would have left
    capture_drain(capture);
    EXPECT_EQ(capture.pings.size(), pings);
    EXPECT_EQ(requests_at_the_far_end(), asked);

    capture_close(capture);
    d.links.clear();
}
