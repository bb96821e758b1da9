// Every process around the daemon is killed and started again, and so is the daemon itself: what its clients and the
// services see then is what docs/operations.md tells an operator.
#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include <poll.h>
#include <unistd.h>

#include "e2e.hpp"
#include "link_list/link_list.hpp"

using namespace std::chrono_literals;

namespace
{

constexpr uint16_t VLAN = 100;
constexpr int QUIET_MS = 2000;
constexpr const char *SESSION_WITHOUT_LINK = "for link that doesn't exist any more.";

class Restart : public EndToEnd
{
protected:
    // One link that the far end answers, and nothing else.
    void start_with_link()
    {
        start();
        create_enabled_link();
    }

    demo_link &create_enabled_link()
    {
        demo_link &link = demo_create(d, demo_first_wish(d));
        demo_wait_status(d, link.link_ref, IML_LINK_ENABLED, 0, 10s);
        return link;
    }

    // A program of the node, from its start until it takes requests.
    void start_service(const std::string &name)
    {
        stage_start_process(d.stage, name);
        stage_wait_node(d.stage, name);
    }

    void start_daemon()
    {
        d.links.clear();
        stage_wait(d.stage, "the client knows that the old daemon is gone", 5s, [this] {
            iemli_client_next_event(d.client, 10);
            return !d.client.published;
        });
        stage_start_process(d.stage, DAEMON);
        stage_wait(d.stage, "the new daemon publishes its service", 15s,
                   [this] { return iemli_client_wait_published(d.client, 10); });
        ASSERT_EQ(iemli_client_open(d.client).outcome, iemli_outcome::confirmed);
        // What was said of the old daemon has been taken note of.
        d.client.events.clear();
    }

    size_t links_of_daemon()
    {
        std::string error;
        const auto links = link_list::fetch(5000, &error);
        EXPECT_TRUE(links) << error;
        return links ? links->size() : 0;
    }

    uint64_t pings() const
    {
        const far_end_counts counts = demo_far_end_counts(d.links.front());
        return counts.answered + counts.ignored;
    }

    static nlohmann::json shown(const std::string &service) { return stage_control(service, {"show"}); }

    static uint64_t received(const std::string &service, const std::string &request)
    {
        return shown(service)["counters"]["received"].at(request);
    }

    // Every request of every kind that a service has got.
    static uint64_t received_at_all(const std::string &service)
    {
        const nlohmann::json all = shown(service);
        uint64_t sum = all["counters"]["unknown_number"];
        for (const auto &count : all["counters"]["received"]) {
            sum += count.get<uint64_t>();
        }
        return sum;
    }

    // It does nothing for a while but trace what `allowed` matches, line by line.
    void expect_quiet_daemon(const std::string &allowed = "no such line")
    {
        // An answer that it gives now comes after all it had to do before.
        links_of_daemon();
        const double cpu = process_cpu_seconds(daemon());
        const size_t log = read_log(DAEMON).size();
        poll(nullptr, 0, QUIET_MS); // the time itself is what is observed here
        EXPECT_LE(process_cpu_seconds(daemon()) - cpu, 0.05);
        std::istringstream lines(read_log(DAEMON).substr(log));
        for (std::string line; std::getline(lines, line);) {
            EXPECT_THAT(line, testing::HasSubstr(allowed));
        }
    }
};

} // namespace

// ---- A lower-layer service ------------------------------------------------------------------------------------------

class LowerLayerRestart : public Restart, public testing::WithParamInterface<const char *>
{
protected:
    std::string service() const { return GetParam(); }

    void lose_service()
    {
        kill_process(service());
        wait_event(iemli_event_kind::withdrawn);
    }
};

TEST_P(LowerLayerRestart, ItsLossDeletesTheLinks)
{
    start_with_link();
    lose_service();
    EXPECT_EQ(links_of_daemon(), 0u);
}

TEST_P(LowerLayerRestart, ItsReturnIsNotFollowed)
{
    start_with_link();
    lose_service();
    start_service(service());
    expect_quiet_daemon(service() == "iepcsi" ? SESSION_WITHOUT_LINK : "no such line");
    EXPECT_FALSE(d.client.published);
    EXPECT_EQ(received_at_all(service()), 0u) << "nobody has asked the new one for anything";
    EXPECT_TRUE(shown(service())["clients"].empty());
}

TEST_P(LowerLayerRestart, ANewDaemonAfterSigtermServesAgain)
{
    start_with_link();
    lose_service();
    start_service(service());
    child_process ended = stage_stop_process(d.stage, DAEMON, SIGTERM, 5s);
    EXPECT_EQ(process_status_text(ended), "exit status 0");
    start_daemon();
    create_enabled_link();
    EXPECT_EQ(links_of_daemon(), 1u);
}

TEST_P(LowerLayerRestart, ANewDaemonAfterSigkillServesAgain)
{
    start_with_link();
    lose_service();
    start_service(service());
    kill_process(DAEMON);
    start_daemon();
    create_enabled_link();
    EXPECT_EQ(links_of_daemon(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Service, LowerLayerRestart, testing::Values("iepcsi", "pmi", "emi", "fmi"),
                         [](const auto &service) { return std::string(service.param); });

// The daemon enters a port's namespace by its name; the port control server gives its own one, and takes it away.
TEST_F(Restart, APortWhoseNamespaceHasNoNameCarriesLinksToo)
{
    constexpr const char *config_path = "/run/kap-node.toml";
    start();
    stage_stop_process(d.stage, "iepcsi", SIGTERM, 5s);
    wait_event(iemli_event_kind::withdrawn);
    command_must({"ip", "-n", NEAR_NAMESPACE, "link", "set", "idl_a1", "netns", std::to_string(getpid())});
    command_must({"ip", "link", "set", "idl_a1", "up"});
    // The first port's; the other's stays.
    command_must({"sed", "-i", "0,/^namespace = .*$/{//d}", config_path});
    start_service("iepcsi");
    stage_stop_process(d.stage, DAEMON, SIGTERM, 5s);
    start_daemon();
    create_enabled_link();
    const std::string told = shown("iepcsi")["ports"][0]["reported_namespace"];
    EXPECT_TRUE(std::filesystem::exists("/run/netns/" + told)) << told;
}

// The port data went with port control: what the deleted links had set up can neither be named nor stopped any more.
TEST_F(Restart, TheLossOfPortControlLeavesVlansEndpointsAndPingsUntilTheDaemonEnds)
{
    start_with_link();
    const size_t endpoints = endpoints_in_vlan(VLAN);
    kill_process("iepcsi");
    wait_event(iemli_event_kind::withdrawn);
    EXPECT_EQ(links_of_daemon(), 0u);
    EXPECT_EQ(received("pmi", "PMI_DISABLE_PORT_VLAN_REQ"), 0u);
    EXPECT_EQ(vlans(), 1u);
    EXPECT_EQ(endpoints_in_vlan(VLAN), endpoints);
    const uint64_t before = pings();
    stage_wait(d.stage, "three more pings", 10s, [&] { return pings() >= before + 3; });
    kill_process(DAEMON);
    const uint64_t last = pings();
    poll(nullptr, 0, QUIET_MS); // the time itself is what is observed here
    EXPECT_EQ(pings(), last);
}

TEST_F(Restart, TheLossOfPortManagementEndsThePingsAndTakesTheEndpointsBack)
{
    start_with_link();
    kill_process("pmi");
    wait_event(iemli_event_kind::withdrawn);
    EXPECT_EQ(links_of_daemon(), 0u);
    stage_wait(d.stage, "the endpoints are gone", 5s, [] { return endpoints_in_vlan(VLAN) == 0; });
    const uint64_t last = pings();
    poll(nullptr, 0, QUIET_MS); // the time itself is what is observed here
    EXPECT_EQ(pings(), last);
}

class EndpointOrFlowManager : public Restart, public testing::WithParamInterface<const char *>
{
};

TEST_P(EndpointOrFlowManager, ItsLossEndsThePingsAndTheOthersTakeBackWhatTheyHave)
{
    start_with_link();
    kill_process(GetParam());
    wait_event(iemli_event_kind::withdrawn);
    stage_wait(d.stage, "the VLAN is closed", 5s, [] { return vlans() == 0; });
    if (GetParam() == std::string("fmi")) {
        stage_wait(d.stage, "the endpoints are gone", 5s, [] { return endpoints_in_vlan(VLAN) == 0; });
    }
    const uint64_t last = pings();
    poll(nullptr, 0, QUIET_MS); // the time itself is what is observed here
    EXPECT_EQ(pings(), last);
}

INSTANTIATE_TEST_SUITE_P(Service, EndpointOrFlowManager, testing::Values("emi", "fmi"),
                         [](const auto &service) { return std::string(service.param); });

// ---- The automation agent -------------------------------------------------------------------------------------------

class AgentRestart : public Restart
{
protected:
    // It is the agent that says who has set up a connection with it.
    void wait_connected()
    {
        stage_wait(d.stage, "the daemon has a connection with the agent", 10s,
                   [] { return shown(AGENT)["clients"].size() == 1; });
    }

    void wait_paths(size_t count)
    {
        stage_wait(d.stage, "the agent has that many paths", 10s,
                   [=] { return shown(AGENT)["paths"].size() == count; });
    }
};

TEST_F(AgentRestart, ItIsFoundAgainAndToldOfNewLinks)
{
    start();
    wait_connected();
    const uint32_t link_ref = create_enabled_link().link_ref;
    wait_paths(1);
    kill_process(AGENT);
    wait_log(DAEMON, "KAP_VORN_AASI_SERVICE is removed");
    start_service(AGENT);
    wait_connected();
    stage_wait(d.stage, "the daemon counts the agent as up", 5s, [this] {
        const std::string log = read_log(DAEMON);
        const size_t removed = log.find("KAP_VORN_AASI_SERVICE is removed");
        return log.find("KAP_VORN_AASI_SERVICE is added", removed) != std::string::npos;
    });
    // Of the links it had before, the new agent hears when it asks for them.
    EXPECT_TRUE(shown(AGENT)["paths"].empty());
    stage_control(AGENT, {"config-update", "1"});
    wait_paths(1);
    demo_create(d, demo_second_wish(d));
    wait_paths(2);
    EXPECT_EQ(demo_find(d, link_ref).status, uint32_t{IML_LINK_ENABLED});
}

TEST_F(AgentRestart, ItsLossChangesNothingForClients)
{
    start();
    wait_connected();
    const uint32_t link_ref = create_enabled_link().link_ref;
    kill_process(AGENT);
    wait_log(DAEMON, "KAP_VORN_AASI_SERVICE is removed");
    EXPECT_EQ(iemli_client_get_mac(d.client, "IDL_A1", 1).outcome, iemli_outcome::confirmed);
    EXPECT_EQ(iemli_client_delete_link(d.client, link_ref).outcome, iemli_outcome::confirmed);
    EXPECT_TRUE(d.client.published);
}

// ---- The registry ---------------------------------------------------------------------------------------------------

TEST_F(Restart, WithTheRegistryEveryProcessEndsTheDaemonWithStatusZero)
{
    start_with_link();
    auto rest = std::exchange(d.stage.processes, {});
    child_process registry = rest.extract(REGISTRY).mapped();
    process_kill(registry);
    for (auto &[name, child] : rest) {
        EXPECT_TRUE(process_wait(child, 10s * slowness())) << name;
        EXPECT_EQ(process_status_text(child), name == DAEMON ? "exit status 0" : "exit status 1") << name;
        process_kill(child);
    }
    // The sockets of those who died are removed by the next registry; there is none here.
    std::filesystem::remove_all("/run/kap-itc");
}

// ---- The daemon -----------------------------------------------------------------------------------------------------

TEST_F(Restart, TheDeathOfTheDaemonTearsNothingDownInTheLowerLayers)
{
    start_with_link();
    const size_t endpoints = endpoints_in_vlan(VLAN);
    const uint64_t closed = received("pmi", "PMI_DISABLE_PORT_VLAN_REQ");
    kill_process(DAEMON);
    for (const char *service : {"pmi", "emi", "fmi", "iepcsi"}) {
        stage_wait(d.stage, std::string(service) + " knows of the death", 5s,
                   [=] { return shown(service)["clients"].empty(); });
    }
    EXPECT_EQ(vlans(), 1u);
    EXPECT_EQ(endpoints_in_vlan(VLAN), endpoints);
    EXPECT_EQ(received("pmi", "PMI_DISABLE_PORT_VLAN_REQ"), closed);
    start_daemon();
    create_enabled_link();
    EXPECT_EQ(vlans(), 1u);
    EXPECT_EQ(endpoints_in_vlan(VLAN), endpoints) << "what the old daemon had set up is used again";
    // Services that count who wants a thing count the dead daemon too.
    demo_delete_all(d);
    EXPECT_EQ(vlans(), 1u);
    EXPECT_EQ(endpoints_in_vlan(VLAN), endpoints);
}

// The daemon does not refuse a session while its service is withdrawn, and gives it the reference of one that has
// ended.
TEST_F(Restart, AClientThatDoesNotWaitForThePublicationMayGetTheAnswerToAnEndedSession)
{
    start();
    const uint32_t reference = d.client.server_ref;
    const uint64_t before = received("emi", "EMI_ADD_ENDPOINT_REQ");
    stage_control("emi", {"fault", "delay", "EMI_ADD_ENDPOINT_REQ", "1", "2000"});
    iemli_client_send_create(d.client, demo_first_wish(d));
    stage_wait(d.stage, "the endpoint manager owes its answer", 5s,
               [=] { return received("emi", "EMI_ADD_ENDPOINT_REQ") > before; });
    kill_process("fmi");
    wait_event(iemli_event_kind::withdrawn);
    d.client.server_mbox = itc_locate(DAEMON);
    d.client.published = true; // it does as if
    ASSERT_EQ(iemli_client_open(d.client).outcome, iemli_outcome::confirmed);
    EXPECT_EQ(d.client.server_ref, reference);
    const auto deadline = std::chrono::steady_clock::now() + 10s * slowness();
    std::optional<iemli_event> late;
    while (!late && std::chrono::steady_clock::now() < deadline) {
        late = iemli_client_next_event(d.client, 100);
    }
    ASSERT_TRUE(late);
    EXPECT_EQ(late->kind, iemli_event_kind::late_answer);
    EXPECT_EQ(late->msgno, uint32_t{IEMLI_CREATE_INTER_ME_LINK_CFM});
}

// The sessions end with the service, and the links with their sessions.
TEST_F(Restart, SigtermGivesBackWhatTheLinksOfOpenSessionsHad)
{
    start_with_link();
    child_process ended = stage_stop_process(d.stage, DAEMON, SIGTERM, 5s);
    EXPECT_EQ(process_status_text(ended), "exit status 0");
    stage_wait(d.stage, "VLAN and endpoints are gone", 5s, [] { return vlans() == 0 && endpoints_in_vlan(VLAN) == 0; });
}
