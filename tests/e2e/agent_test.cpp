// The automation agent as a process that comes, goes and misbehaves. The links never depend on it.
#include "e2e.hpp"

using namespace std::chrono_literals;

namespace
{

constexpr const char *CONNECT = "AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REQ";
constexpr const char *CONNECTED = "KAP_VORN_AASI_SERVICE is added";
constexpr const char *NOT_TO_BE_HAD = "KAP_VORN_AASI_SERVICE can't be initialized";

struct AutomationAgent : EndToEnd {
    static uint64_t received(const char *request)
    {
        return stage_control(AGENT, {"show"})["counters"]["received"][request];
    }

    // Waits until the daemon has connected to it for the nth time.
    void wait_connected(size_t times)
    {
        stage_wait(d.stage, "the daemon connects to the agent", 5s, [=, this] {
            const std::string log = read_log(DAEMON);
            size_t found = 0;
            for (size_t at = 0; (at = log.find(CONNECTED, at)) != std::string::npos; at++) {
                found++;
            }
            return found == times;
        });
    }

    void disappear()
    {
        stage_control(AGENT, {"disappear"});
        wait_log(DAEMON, "KAP_VORN_AASI_SERVICE is removed");
    }

    // A link comes up without the agent hearing of it.
    void expect_links_without_paths()
    {
        demo_link &link = demo_create(d, demo_first_wish(d));
        demo_wait_status(d, link.link_ref, IML_LINK_ENABLED, 0, 5s);
        EXPECT_FALSE(demo_agent_path(link.link_ref).has_value());
    }
};

} // namespace

TEST_F(AutomationAgent, IsToldOfTheLinksThatAreMadeWhileItIsThere)
{
    start();
    wait_connected(1);
    disappear();
    expect_links_without_paths();
    stage_control(AGENT, {"appear"});
    wait_connected(2);
    demo_link &link = demo_create(d, demo_second_wish(d));
    stage_wait(d.stage, "the agent has the path", 5s, [&] { return demo_agent_path(link.link_ref).has_value(); });
    EXPECT_FALSE(demo_agent_path(d.links[0].link_ref).has_value()) << "it has not asked for that one";
    stage_control(AGENT, {"config-update", "1"});
    stage_wait(d.stage, "the agent has both", 5s, [&] { return demo_agent_path(d.links[0].link_ref).has_value(); });
}

TEST_F(AutomationAgent, ThatRejectsTheConnectionIsLeftAlone)
{
    start();
    wait_connected(1);
    disappear();
    stage_control(AGENT, {"fault", "reject", CONNECT, "1", "AUTOMATIONAGENTSI_NO_COMMONLY_SUPPORTED_PROTOCOL_VERSION"});
    stage_control(AGENT, {"appear"});
    wait_log(DAEMON, NOT_TO_BE_HAD);
    expect_links_without_paths();
    stage_control(AGENT, {"disappear"});
    stage_control(AGENT, {"appear"});
    EXPECT_EQ(iemli_client_get_mac(d.client, "IDL_A1", 1).outcome, iemli_outcome::confirmed);
    EXPECT_EQ(received(CONNECT), 2u) << "the daemon does not look for it any more";
}

TEST_F(AutomationAgent, ThatIsAnnouncedForAForeignSubscriptionIsNotUsed)
{
    start();
    wait_connected(1);
    stage_control(AGENT, {"announce-foreign"});
    wait_log(DAEMON, NOT_TO_BE_HAD);
    expect_links_without_paths();
    EXPECT_EQ(received(CONNECT), 1u);
}
