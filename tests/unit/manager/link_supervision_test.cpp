// Sessions of the supervision library for links, and what their results make of a link's status.
#include "manager/links/link_supervision.hpp"

#include <gmock/gmock.h>

#include "support/daemon.hpp"

namespace
{

using daemon_test::APP_1;
using daemon_test::APP_2;
using daemon_test::Link;
using daemon_test::make_link_data;
using daemon_test::Message;
using fake::Builder;
using fake::Trace;
using testing::ElementsAre;
using testing::IsEmpty;

const mac_address LOCAL = {{0x02, 0, 0, 0, 0, 0xA1}};

// Sessions by themselves: a link in the table, no services.
class LinkSessions : public daemon_test::DaemonTest
{
protected:
    iml_link *link = nullptr;

    void SetUp() override
    {
        DaemonTest::SetUp();
        vorn_manager_run(); // knows the own mailbox
        link = add({.app_links = {APP_1, APP_2}});
        forget_records();
    }
    static iml_link *add(const Link &data)
    {
        iml_link *record = iml_link_alloc(make_link_data(data));
        iml_link_insert(record);
        return record;
    }
    static std::string params_of(uint32_t session)
    {
        const supervision_params &params = fake::sessions().at(session).params;
        const auto *first = reinterpret_cast<const uint8_t *>(&params);
        return fake::to_hex({first, first + sizeof params});
    }
    static std::string expected_params(uint32_t interval, uint8_t type, uint16_t frame_size, const char *src,
                                       uint16_t vlan = 100)
    {
        return fake::to_hex(Builder()
                                .text("eth_a1", 16)
                                .u32(interval)
                                .u8(type)
                                .u8(0)
                                .u16(frame_size)
                                .u32(1)
                                .mac("02:00:00:00:0C:01")
                                .mac(src)
                                .u32(0x8100E000u | vlan)
                                .u16(0xAEFE)
                                .zeros(2));
    }
};

TEST_F(LinkSessions, StartInTheLinksNamespaceWithItsParameters)
{
    fake::set_next_session_id(70);
    EXPECT_EQ(start_link_supervision("eth_a1", LOCAL, link, "ns_a1"), 0u);
    EXPECT_EQ(params_of(70), expected_params(1, 1, 64, "02:00:00:00:00:A1"));
    EXPECT_EQ(fake::sessions().at(70).name_space, "ns_a1");
    EXPECT_EQ(fake::current_netns(), "");
    EXPECT_EQ(fake::open_netns_fds(), 0u);
    EXPECT_EQ(link->supervision_state, SUPERVISION_RUNNING);
    EXPECT_EQ(iml_link_find_by_session(70), link);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{6, "Supervision started with session id: 70"}));
}

TEST_F(LinkSessions, UseTheLinksRttSettings)
{
    link->rtt = {4, 15, 1500};
    fake::set_next_session_id(70);
    start_link_supervision("eth_a1", LOCAL, link, "ns_a1");
    EXPECT_EQ(params_of(70), expected_params(15, 1, 1500, "02:00:00:00:00:A1"));
}

TEST_F(LinkSessions, CutALongInterfaceName)
{
    fake::set_next_session_id(70);
    start_link_supervision("an-interface-of-many", LOCAL, link, "ns_a1");
    EXPECT_STREQ(fake::sessions().at(70).params.if_name, "an-interface-of");
}

TEST_F(LinkSessions, TellWhenTheLibraryRefuses)
{
    fake::set_start_result(2);
    EXPECT_EQ(start_link_supervision("eth_a1", LOCAL, link, "ns_a1"), 2u);
    EXPECT_EQ(link->supervision_state, SUPERVISION_FAILED);
    EXPECT_EQ(link->supervision_session_id, 0u);
    EXPECT_EQ(fake::current_netns(), "");
    EXPECT_THAT(fake::traces(),
                ElementsAre(Trace{1, "Start supervision for link (src = 02:00:00:00:00:A1, dest = 02:00:00:00:0C:01, "
                                     "link ref = 1, frameSize = 64, sup_type = 1, interface name = eth_a1, vlantag = "
                                     "0x8100e064) failed with result 2"}));
}

TEST_F(LinkSessions, DoNotStartOutsideTheirNamespace)
{
    EXPECT_EQ(start_link_supervision("eth_a1", LOCAL, link, "nowhere"), 1u);
    start_keep_alive("eth_a1", link, "nowhere");
    EXPECT_TRUE(fake::sessions().empty());
    EXPECT_EQ(link->supervision_state, SUPERVISION_NOT_RUNNING);
    EXPECT_EQ(link->keep_alive_sessions, nullptr);
    EXPECT_EQ(fake::count_traced(1, "Unable to open '/var/run/netns/nowhere' file: No such file or directory"), 2u);
    EXPECT_EQ(fake::count_traced(1, "Failed to enter nowhere namespace"), 2u);
    EXPECT_EQ(fake::open_netns_fds(), 1u) << "the handle that is kept";
}

TEST_F(LinkSessions, StartEvenWhenTheOwnNamespaceCannotBeOpened)
{
    fake::set_own_netns_readable(false);
    EXPECT_EQ(start_link_supervision("eth_a1", LOCAL, link, "ns_a1"), 0u);
    EXPECT_EQ(fake::sessions().size(), 1u);
    EXPECT_TRUE(fake::traced(4, "WARNING:Failed to exit ns_a1 namespace (name space fd -1)."));
}

TEST_F(LinkSessions, KeepTheirResultWhenTheReturnFails)
{
    fake::set_setns_fails(2);
    EXPECT_EQ(start_link_supervision("eth_a1", LOCAL, link, "ns_a1"), 0u);
    EXPECT_EQ(link->supervision_state, SUPERVISION_RUNNING);
    EXPECT_TRUE(fake::traced(1, "Failed to return to previous namespace: Operation not permitted"));
}

TEST_F(LinkSessions, StartAnewBeforeTheOldOneEndsWithoutATrace)
{
    fake::set_next_session_id(70);
    start_link_supervision("eth_a1", LOCAL, link, "ns_a1");
    supervision(70, SUPERVISION_ANSWERED, 0, 500);
    supervision(70, SUPERVISION_LOST);
    link->samples_since_report = 2;
    forget_records();
    for (uint32_t stop_result : {0u, 1u, 3u, 4u}) {
        fake::set_stop_result(stop_result);
        EXPECT_EQ(start_link_supervision("eth_a1", LOCAL, link, "ns_a1"), 0u);
    }
    EXPECT_EQ(fake::sessions().count(70), 0u);
    EXPECT_EQ(link->supervision_session_id, 74u);
    EXPECT_EQ(fake::sessions().count(74), 1u);
    EXPECT_EQ(link->supervision_state, SUPERVISION_RUNNING);
    EXPECT_EQ(link->rtt_samples.count, 2u);
    EXPECT_EQ(link->samples_since_report, 2u);
    EXPECT_EQ(link->supervision_results, 2u);
    EXPECT_EQ(link->supervision_lost, 1u);
    EXPECT_EQ(link->supervision_last_ok, 1u);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{6, "Supervision started with session id: 71"},
                                            Trace{6, "Supervision started with session id: 72"},
                                            Trace{6, "Supervision started with session id: 73"},
                                            Trace{6, "Supervision started with session id: 74"}));
}

TEST_F(LinkSessions, GoOnWhenTheyCannotBeStartedAnew)
{
    fake::set_next_session_id(70);
    start_link_supervision("eth_a1", LOCAL, link, "ns_a1");
    supervision(70, SUPERVISION_ANSWERED, 0, 500);
    forget_records();
    fake::set_start_result(2);
    EXPECT_EQ(start_link_supervision("eth_a1", LOCAL, link, "ns_a1"), 2u);
    EXPECT_EQ(fake::sessions().count(70), 1u);
    EXPECT_EQ(link->supervision_session_id, 70u);
    EXPECT_EQ(link->supervision_state, SUPERVISION_RUNNING);
    EXPECT_EQ(link->rtt_samples.count, 1u);
    EXPECT_EQ(link->supervision_results, 1u);
    EXPECT_THAT(fake::traces(),
                ElementsAre(Trace{1, "Start supervision for link (src = 02:00:00:00:00:A1, dest = 02:00:00:00:0C:01, "
                                     "link ref = 1, frameSize = 64, sup_type = 1, interface name = eth_a1, vlantag = "
                                     "0x8100e064) failed with result 2"}));
    supervision(70, SUPERVISION_LOST);
    EXPECT_EQ(link->supervision_lost, 1u) << "its results still count";
}

TEST_F(LinkSessions, GoOnWhenTheirNamespaceCannotBeEnteredAgain)
{
    fake::set_next_session_id(70);
    start_link_supervision("eth_a1", LOCAL, link, "ns_a1");
    start_keep_alive("eth_a1", link, "ns_a1");
    EXPECT_EQ(start_link_supervision("eth_a1", LOCAL, link, "nowhere"), 1u);
    start_keep_alive("eth_a1", link, "nowhere");
    EXPECT_EQ(fake::sessions().size(), 3u);
    EXPECT_EQ(link->supervision_state, SUPERVISION_RUNNING);
    EXPECT_EQ(link->supervision_session_id, 70u);
    EXPECT_EQ(link->keep_alive_sessions[1].session_id, 72u);
}

TEST_F(LinkSessions, LeaveAResultOfTheirPredecessorToNobody)
{
    fake::set_next_session_id(70);
    start_link_supervision("eth_a1", LOCAL, link, "ns_a1");
    start_keep_alive("eth_a1", link, "ns_a1");
    for (uint32_t old : {70u, 72u}) { // they wait in the mailbox
        fake::push(fake::OWN_MBOX, Builder().u32(0x1B0CE6).u32(old).u32(3).u32(0).u32(0));
    }
    start_link_supervision("eth_a1", LOCAL, link, "ns_a1");
    start_keep_alive("eth_a1", link, "ns_a1");
    forget_records();
    run();
    EXPECT_THAT(notices(),
                ElementsAre(Trace{4, "WARNING: Received supervision ind(70) for link that doesn't exist any more."},
                            Trace{4, "WARNING: Received supervision ind(72) for link that doesn't exist any more."}));
    EXPECT_EQ(link->supervision_results, 0u);
    EXPECT_EQ(link->keep_alive_sessions[1].results, 0u);
}

TEST_F(LinkSessions, StopAndStartFromNothing)
{
    fake::set_next_session_id(70);
    start_link_supervision("eth_a1", LOCAL, link, "ns_a1");
    supervision(70, SUPERVISION_ANSWERED, 0, 500);
    supervision(70, SUPERVISION_LOST);
    link->samples_since_report = 2;
    ASSERT_EQ(link->rtt_samples.count, 2u);
    forget_records();
    stop_link_supervision(link, "ns_a1");
    EXPECT_TRUE(fake::sessions().empty());
    EXPECT_EQ(link->supervision_state, SUPERVISION_NOT_RUNNING);
    EXPECT_EQ(link->supervision_session_id, 0u);
    EXPECT_EQ(link->supervision_results, 0u);
    EXPECT_EQ(link->supervision_lost, 0u);
    EXPECT_EQ(link->supervision_last_ok, 0u);
    EXPECT_EQ(link->rtt_samples.count, 0u);
    EXPECT_EQ(link->samples_since_report, 0u);
    EXPECT_EQ(iml_link_find_by_session(70), nullptr);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{6, "Supervision stopped for link ref: 1 with session id: 70"}));
}

TEST_F(LinkSessions, TellWhenTheLibraryDoesNotStop)
{
    for (uint32_t result : {1u, 2u, 3u}) {
        fake::set_stop_result(0);
        start_link_supervision("eth_a1", LOCAL, link, "ns_a1");
        forget_records();
        fake::set_stop_result(result);
        stop_link_supervision(link, "ns_a1");
        EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, "Supervision stop failed for link ref: 1. Result: " +
                                                             std::to_string(result)}));
        EXPECT_EQ(link->supervision_state, SUPERVISION_FAILED);
        EXPECT_EQ(link->supervision_session_id, 0u);
    }
}

TEST_F(LinkSessions, IgnoreHigherResultsOfAStop)
{
    start_link_supervision("eth_a1", LOCAL, link, "ns_a1");
    forget_records();
    fake::set_stop_result(4);
    stop_link_supervision(link, "ns_a1");
    EXPECT_THAT(fake::traces(), IsEmpty());
    EXPECT_EQ(link->supervision_state, SUPERVISION_RUNNING) << "unchanged";
    EXPECT_EQ(link->supervision_session_id, 0u);
}

TEST_F(LinkSessions, StopAlsoWhereTheirNamespaceCannotBeEntered)
{
    fake::set_next_session_id(70);
    start_link_supervision("eth_a1", LOCAL, link, "ns_a1");
    start_keep_alive("eth_a1", link, "ns_a1");
    forget_records();
    fake::remove_netns("ns_a1");
    stop_link_supervision(link, "ns_a1");
    stop_keep_alive(link, "ns_a1");
    EXPECT_TRUE(fake::sessions().empty());
    EXPECT_EQ(link->supervision_state, SUPERVISION_NOT_RUNNING);
    EXPECT_EQ(link->supervision_session_id, 0u);
    EXPECT_EQ(link->keep_alive_sessions, nullptr);
    EXPECT_EQ(fake::current_netns(), "");
    const Trace not_opened{1, "Unable to open '/var/run/netns/ns_a1' file: No such file or directory"};
    const Trace not_entered{1, "Failed to enter ns_a1 namespace"};
    EXPECT_THAT(fake::traces(),
                ElementsAre(not_opened, not_entered,
                            Trace{6, "Supervision stopped for link ref: 1 with session id: 70"}, not_opened,
                            not_entered, Trace{6, "Keep alive stopped with session id: 71:"},
                            Trace{6, "Keep alive stopped with session id: 72:"}));
}

TEST_F(LinkSessions, KeepOneAlivePerAppLink)
{
    fake::set_next_session_id(80);
    link->rtt = {4, 15, 1500};
    start_keep_alive("eth_a1", link, "ns_a1");
    EXPECT_EQ(params_of(80), expected_params(5, 2, 64, "02:00:00:00:0A:01"));
    EXPECT_EQ(params_of(81), expected_params(5, 2, 64, "02:00:00:00:0A:02"));
    EXPECT_EQ(link->keep_alive_sessions[0].session_id, 80u);
    EXPECT_EQ(link->keep_alive_sessions[1].session_id, 81u);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{6, "Keep alive started with session id: 80"},
                                            Trace{6, "Keep alive started with session id: 81"}));
    EXPECT_EQ(link->supervision_state, SUPERVISION_NOT_RUNNING);
}

TEST_F(LinkSessions, GoOnWithTheNextAppLinkWhenOneDoesNotStart)
{
    fake::set_next_session_id(80);
    fake::set_start_results({4, 0});
    start_keep_alive("eth_a1", link, "ns_a1");
    EXPECT_EQ(link->keep_alive_sessions[0].session_id, 0u);
    EXPECT_EQ(link->keep_alive_sessions[1].session_id, 80u);
    EXPECT_THAT(fake::traces(),
                ElementsAre(Trace{1, "Start keep alive for app link (src = 02:00:00:00:0A:01, dest = "
                                     "02:00:00:00:0C:01) link ref = 1, frameSize = 64, sup_type = 2, interface name = "
                                     "eth_a1, vlantag = 0x8100e064) failed with result 4"},
                            Trace{6, "Keep alive started with session id: 80"}));
}

TEST_F(LinkSessions, KeepNothingAliveWhenMemoryIsOut)
{
    fake::fail_allocation(1);
    start_keep_alive("eth_a1", link, "ns_a1");
    EXPECT_TRUE(fake::sessions().empty());
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, "Memory error. App supervision not started."}));
    EXPECT_EQ(fake::current_netns(), "");
}

// The session id and the counters of every keep-alive of a link.
std::vector<std::string> keep_alives(const iml_link *link)
{
    std::vector<std::string> found;
    for (uint32_t i = 0; i < link->keep_alive_count; ++i) {
        const keep_alive_session &entry = link->keep_alive_sessions[i];
        found.push_back(std::to_string(entry.session_id) + ": " + std::to_string(entry.results) + "/" +
                        std::to_string(entry.lost) + "/" + std::to_string(entry.last_ok));
    }
    return found;
}

TEST_F(LinkSessions, StartKeepAlivesAnewBeforeTheOldOnesEndWithoutATrace)
{
    fake::set_next_session_id(80);
    start_keep_alive("eth_a1", link, "ns_a1");
    supervision(80, SUPERVISION_KEEP_ALIVE_OK);
    supervision(80, SUPERVISION_LOST);
    forget_records();
    start_keep_alive("eth_a1", link, "ns_a1");
    EXPECT_THAT(keep_alives(link), ElementsAre("82: 2/1/1", "83: 0/0/0"));
    EXPECT_EQ(fake::sessions().size(), 2u);
    EXPECT_EQ(fake::sessions().count(82), 1u);
    EXPECT_EQ(keep_alive_find_by_session(80), nullptr);
    EXPECT_EQ(keep_alive_find_by_session(81), nullptr);
    EXPECT_EQ(keep_alive_find_by_session(82), &link->keep_alive_sessions[0]);
    EXPECT_EQ(keep_alive_find_by_session(83), &link->keep_alive_sessions[1]);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{6, "Keep alive started with session id: 82"},
                                            Trace{6, "Keep alive started with session id: 83"}));
}

TEST_F(LinkSessions, KeepTheOldKeepAliveOfAnAppLinkWhoseNewOneDoesNotStart)
{
    iml_link *wide = add({.cpm = "02:00:00:00:0C:02",
                          .vlan = 101,
                          .app_links = {APP_1, APP_2, daemon_test::AppLink{"02:00:00:00:0A:03", "02:00:00:00:0B:03"},
                                        daemon_test::AppLink{"02:00:00:00:0A:04", "02:00:00:00:0B:04"},
                                        daemon_test::AppLink{"02:00:00:00:0A:05", "02:00:00:00:0B:05"}}});
    fake::set_next_session_id(80);
    start_keep_alive("eth_a1", wide, "ns_a1");
    supervision(82, SUPERVISION_LOST);
    forget_records();
    fake::set_start_results({0, 0, 2, 0, 0});
    start_keep_alive("eth_a1", wide, "ns_a1");
    EXPECT_THAT(keep_alives(wide), ElementsAre("85: 0/0/0", "86: 0/0/0", "82: 1/1/0", "87: 0/0/0", "88: 0/0/0"));
    EXPECT_EQ(fake::sessions().size(), 5u);
    EXPECT_EQ(fake::sessions().count(82), 1u);
    EXPECT_EQ(keep_alive_find_by_session(82), &wide->keep_alive_sessions[2]);
    EXPECT_EQ(fake::count_traced(6, "Keep alive started with session id: 88"), 1u);
    EXPECT_EQ(fake::traces().size(), 5u);
}

TEST_F(LinkSessions, KeepEveryOldKeepAliveWhenMemoryIsOut)
{
    fake::set_next_session_id(80);
    start_keep_alive("eth_a1", link, "ns_a1");
    forget_records();
    fake::fail_allocation(1);
    start_keep_alive("eth_a1", link, "ns_a1");
    EXPECT_THAT(keep_alives(link), ElementsAre("80: 0/0/0", "81: 0/0/0"));
    EXPECT_EQ(fake::sessions().size(), 2u);
    EXPECT_EQ(keep_alive_find_by_session(81), &link->keep_alive_sessions[1]);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, "Memory error. App supervision not started."}));
}

TEST_F(LinkSessions, EndKeepAlivesOfAppLinksThatAreNoMore)
{
    fake::set_next_session_id(80);
    start_keep_alive("eth_a1", link, "ns_a1");
    forget_records();
    IemliAppLink *app_links = iemli_app_links(link->link_data);
    app_links[0].nearEndAppMac = {{0x02, 0, 0, 0, 0x0A, 9}};
    link->link_data->numberOfAppLinks = 1;
    fake::set_start_result(2);
    start_keep_alive("eth_a1", link, "ns_a1");
    EXPECT_THAT(keep_alives(link), ElementsAre("0: 0/0/0")) << "what watched another address is not its session";
    EXPECT_TRUE(fake::sessions().empty());
    EXPECT_EQ(fake::traces().size(), 1u) << "that the new one does not start";
    fake::set_start_result(0);
    start_keep_alive("eth_a1", link, "ns_a1");
    EXPECT_EQ(params_of(link->keep_alive_sessions[0].session_id), expected_params(5, 2, 64, "02:00:00:00:0A:09"));
}

TEST_F(LinkSessions, StopEveryKeepAlive)
{
    fake::set_next_session_id(80);
    start_keep_alive("eth_a1", link, "ns_a1");
    forget_records();
    stop_keep_alive(link, "ns_a1");
    EXPECT_TRUE(fake::sessions().empty());
    EXPECT_EQ(link->keep_alive_sessions, nullptr);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{6, "Keep alive stopped with session id: 80:"},
                                            Trace{6, "Keep alive stopped with session id: 81:"}));
}

TEST_F(LinkSessions, ForgetKeepAlivesThatDoNotStop)
{
    fake::set_next_session_id(80);
    start_keep_alive("eth_a1", link, "ns_a1");
    forget_records();
    fake::set_stop_result(3);
    stop_keep_alive(link, "ns_a1");
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, "Keep alive stop failed for session id 80. Result: 3"},
                                            Trace{1, "Keep alive stop failed for session id 81. Result: 3"}));
    EXPECT_EQ(link->keep_alive_sessions, nullptr);
    fake::set_stop_result(0);
    start_keep_alive("eth_a1", link, "ns_a1");
    forget_records();
    fake::set_stop_result(4);
    stop_keep_alive(link, "ns_a1");
    EXPECT_THAT(fake::traces(), IsEmpty());
}

// ---- The callback and its message ----

TEST_F(LinkSessions, ReportToTheOwnMailbox)
{
    const supervision_rtt rtt = {1, 200};
    supervision_callback(&rtt, 70, 0);
    supervision_callback(nullptr, 71, 3);
    itc_msg *first = itc_receive(nullptr, 0, ITC_FROM_ANY);
    itc_msg *second = itc_receive(nullptr, 0, ITC_FROM_ANY);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(itc_sender(first), fake::OWN_MBOX);
    const auto *bytes = reinterpret_cast<const uint8_t *>(first);
    EXPECT_EQ(fake::to_hex({bytes, bytes + itc_size(first)}),
              fake::to_hex(Builder().u32(0x1B0CE6).u32(70).u32(0).u32(1).u32(200)));
    bytes = reinterpret_cast<const uint8_t *>(second);
    EXPECT_EQ(fake::to_hex({bytes, bytes + itc_size(second)}),
              fake::to_hex(Builder().u32(0x1B0CE6).u32(71).u32(3).u32(0).u32(0)));
    itc_free(&first);
    itc_free(&second);
}

TEST_F(LinkSessions, ClaimTheirIndicationOnly)
{
    EXPECT_FALSE(fake::dispatch(supervision_dispatch, fake::OWN_MBOX, Builder().u32(0x1B0CE5).zeros(16)));
    EXPECT_TRUE(fake::dispatch(supervision_dispatch, fake::OWN_MBOX, Builder().u32(0x1B0CE6).zeros(16)));
}

TEST_F(LinkSessions, DropAnIndicationThatIsTooShort)
{
    EXPECT_TRUE(fake::dispatch(supervision_dispatch, fake::OWN_MBOX, Builder().u32(0x1B0CE6).u32(70).zeros(11)));
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, "SUPERVISION_IND too short: 19 bytes"}));
}

// ---- Results ----

// A link of a client, on a port that is up, with session 1 for the link and 2 for its app link.
class LinkStatus : public daemon_test::DaemonTest
{
protected:
    uint32_t session = 0;
    iml_link *link = nullptr;

    void SetUp() override
    {
        DaemonTest::SetUp();
        start();
        session = open_session();
        ASSERT_EQ(create_link(session, {}), 1u);
        link = iml_link_first();
        forget_records();
    }
    // Status and reason of every status indication, taken.
    static std::vector<std::string> indications()
    {
        std::vector<std::string> found;
        for (const Message &m : messages_to(daemon_test::CLIENT)) {
            if (m.msgno() == IEMLI_INTER_ME_LINK_STATUS_IND) {
                found.push_back(std::to_string(m.word(3)) + ":" + std::to_string(m.word(4)) + "/" +
                                std::to_string(m.word(5)));
            }
        }
        fake::sent().clear();
        return found;
    }
    static std::vector<std::string> paths()
    {
        std::vector<std::string> found;
        for (const Message &m : messages_to(daemon_test::AASI)) {
            found.push_back(fake::to_hex({m.bytes.begin() + 12, m.bytes.end()}));
        }
        return found;
    }
};

TEST_F(LinkStatus, IsNoConnectivityUntilTheFirstGoodResult)
{
    EXPECT_EQ(link->status, 0u);
    EXPECT_EQ(link->disabled_reason, 4u);
    supervision(1, SUPERVISION_ANSWERED, 0, 1000);
    EXPECT_EQ(link->status, 1u);
    EXPECT_EQ(link->disabled_reason, 4u) << "left as it was";
    EXPECT_THAT(indications(), ElementsAre("1:1/4"));
    EXPECT_THAT(notices(),
                ElementsAre(Trace{13, "Received supervision ind with session id: 1,rtt_sec: 0, rtt_nsec: 1000, "
                                      "supervision result: 0"},
                            Trace{4, "Link status change, from: disabled with reason no connectivity, to: enabled. "
                                     "Link ref: 1"}));
}

TEST_F(LinkStatus, IsEnabledByAnyOfTheThreeGoodResultsOnce)
{
    for (uint32_t result : {0u, 1u, 2u}) {
        iml_link_write_status(link, IML_LINK_DISABLED, IML_LINK_REASON_NO_CONNECTIVITY);
        supervision(1, result);
        EXPECT_EQ(link->status, 1u) << result;
        EXPECT_EQ(indications().size(), 1u);
        supervision(1, result);
        EXPECT_THAT(indications(), IsEmpty());
        EXPECT_EQ(link->supervision_last_ok, link->supervision_results);
    }
}

TEST_F(LinkStatus, IsLostWithTheSixthLostFrameInARow)
{
    supervision(1, SUPERVISION_ANSWERED);
    forget_records();
    for (int i = 0; i < 5; ++i) {
        supervision(1, SUPERVISION_LOST);
    }
    EXPECT_EQ(link->status, 1u);
    EXPECT_THAT(indications(), IsEmpty());
    fake::traces().clear();
    supervision(1, SUPERVISION_LOST);
    EXPECT_EQ(link->status, 0u);
    EXPECT_EQ(link->disabled_reason, 4u);
    EXPECT_EQ(link->supervision_lost, 6u);
    EXPECT_EQ(link->supervision_results, 7u);
    EXPECT_THAT(indications(), ElementsAre("1:0/4"));
    EXPECT_THAT(notices(),
                ElementsAre(Trace{13, "Received supervision ind with session id: 1,rtt_sec: 0, rtt_nsec: 0, "
                                      "supervision result: 3"},
                            Trace{4, "Max pings lost, link status change: disabled with reason no connectivity. Link "
                                     "ref: 1"}));
    supervision(1, SUPERVISION_LOST);
    EXPECT_THAT(indications(), IsEmpty()) << "told once";
    supervision(1, SUPERVISION_ANSWERED_NO_TIME);
    EXPECT_THAT(indications(), ElementsAre("1:1/4")) << "back at once";
}

TEST_F(LinkStatus, CountsUnknownResultsTowardsTheLoss)
{
    supervision(1, SUPERVISION_ANSWERED);
    forget_records();
    for (int i = 0; i < 5; ++i) {
        supervision(1, 9);
    }
    EXPECT_EQ(fake::count_traced(4, "WARNING:Unknown supervision result(9) received"), 5u);
    EXPECT_EQ(link->status, 1u);
    supervision(1, SUPERVISION_LOST);
    EXPECT_EQ(link->status, 0u) << "the sixth result without a good one";
}

TEST_F(LinkStatus, StaysDisabledHoweverManyFramesAreLost)
{
    for (int i = 0; i < 20; ++i) {
        supervision(1, SUPERVISION_LOST);
    }
    EXPECT_EQ(link->supervision_lost, 20u);
    EXPECT_THAT(indications(), IsEmpty());
}

TEST_F(LinkStatus, IsNotAMatterOfKeepAlives)
{
    const keep_alive_session *entry = &link->keep_alive_sessions[0];
    ASSERT_EQ(entry->session_id, 2u);
    supervision(2, SUPERVISION_KEEP_ALIVE_OK);
    EXPECT_EQ(entry->last_ok, 1u);
    supervision(2, SUPERVISION_LOST);
    EXPECT_EQ(entry->lost, 1u);
    fake::traces().clear();
    supervision(2, SUPERVISION_ANSWERED_NO_TIME);
    EXPECT_EQ(entry->results, 3u);
    EXPECT_EQ(entry->last_ok, 1u);
    EXPECT_EQ(entry->lost, 1u);
    EXPECT_THAT(notices(), ElementsAre(Trace{13, "Received supervision ind with session id: 2,supervision result: 1"},
                                       Trace{4, "WARNING:Unknown supervision result(1) received"}));
    EXPECT_THAT(indications(), IsEmpty());
    EXPECT_EQ(link->status, 0u);
}

TEST_F(LinkStatus, IsNotTouchedByASessionThatNobodyHas)
{
    fake::push(fake::OWN_MBOX, Builder().u32(0x1B0CE6).u32(99).u32(0).u32(0).u32(0));
    run();
    EXPECT_THAT(notices(),
                ElementsAre(Trace{4, "WARNING: Received supervision ind(99) for link that doesn't exist any more."}));
}

TEST_F(LinkStatus, IsDownWithItsPortAndNoConnectivityWhenThePortIsBack)
{
    supervision(1, SUPERVISION_ANSWERED);
    forget_records();
    set_port("IDLA1", 1, 0);
    EXPECT_TRUE(fake::sessions().empty());
    EXPECT_EQ(link->supervision_state, SUPERVISION_NOT_RUNNING);
    EXPECT_THAT(indications(), ElementsAre("1:0/2"));
    EXPECT_TRUE(fake::traced(6, "Updated iml link status on link: 1, with port name IDL_A1. Old status enabled, new "
                                "status disabled with reason down"));
    set_port("IDLA1", 1, 1);
    EXPECT_EQ(fake::sessions().size(), 2u);
    EXPECT_THAT(indications(), ElementsAre("1:0/4"));
    EXPECT_TRUE(fake::traced(6, "Updated iml link status on link: 1, with port name IDL_A1. Old status disabled with "
                                "reason down, new status disabled with reason no connectivity"));
    supervision(link->supervision_session_id, SUPERVISION_ANSWERED);
    EXPECT_THAT(indications(), ElementsAre("1:1/4"));
}

TEST_F(LinkStatus, GoesToTheAutomationAgentWhileItIsUp)
{
    start_aasi();
    fake::sent().clear();
    supervision(1, SUPERVISION_ANSWERED);
    EXPECT_THAT(paths(), ElementsAre(fake::to_hex(Builder().n32(1).n32(0).n32(0).n32(0).n32(1))));
    fake::sent().clear();
    set_port("IDLA1", 1, 0);
    EXPECT_THAT(paths(), ElementsAre(fake::to_hex(Builder().n32(1).n32(0).n32(0).n32(0).n32(0))));
    handle_service_event(AASI_SERVICE_DOWN);
    fake::sent().clear();
    set_port("IDLA1", 1, 1);
    EXPECT_THAT(paths(), IsEmpty());
}

TEST_F(LinkStatus, IsToldToTheOwnerBeforeTheAutomationAgent)
{
    start_aasi();
    fake::sent().clear();
    supervision(1, SUPERVISION_ANSWERED);
    set_port("IDLA1", 1, 0);
    std::vector<uint32_t> receivers;
    for (const fake::Sent &message : fake::sent()) {
        receivers.push_back(message.to);
    }
    EXPECT_THAT(receivers, ElementsAre(daemon_test::CLIENT, daemon_test::AASI, daemon_test::CLIENT, daemon_test::AASI));
}

TEST_F(LinkStatus, IsLostWithTheSixthFrameAlsoAfterASessionStartedAnewWhileTheLinkIsEnabled)
{
    supervision(1, SUPERVISION_ANSWERED);
    request(enable_rtt_request(session, 50, 1, 5, 1, 64));
    forget_records();
    EXPECT_EQ(link->status, 1u) << "a restart leaves the status";
    for (int i = 0; i < 5; ++i) {
        supervision(link->supervision_session_id, SUPERVISION_LOST);
    }
    EXPECT_EQ(link->status, 1u);
    supervision(link->supervision_session_id, SUPERVISION_LOST);
    EXPECT_EQ(link->status, 0u);
}

TEST_F(LinkStatus, IsNotTouchedByAnIndicationOfNoSession)
{
    set_port("IDLA1", 1, 0); // the link has no session now
    forget_records();
    fake::push(fake::OWN_MBOX, Builder().u32(0x1B0CE6).u32(0).u32(0).u32(0).u32(0));
    run();
    EXPECT_EQ(link->status, 0u);
    EXPECT_THAT(notices(),
                ElementsAre(Trace{4, "WARNING: Received supervision ind(0) for link that doesn't exist any more."}));
}

TEST_F(LinkStatus, IsLeftAloneWhenAPortComesUpTwice)
{
    start_supervision_on_port("IDLA1");
    EXPECT_THAT(notices(),
                ElementsAre(Trace{4, "WARNING: Trying to start supervision twice on link: 1, supervision session: 1"}));
    EXPECT_THAT(indications(), IsEmpty());
    EXPECT_EQ(fake::sessions().size(), 2u);
}

TEST_F(LinkStatus, IsLeftAloneWhenAPortGoesDownThatNeverSupervisedIt)
{
    stop_supervision_on_port("IDLA1");
    forget_records();
    stop_supervision_on_port("IDLA1");
    EXPECT_THAT(notices(), ElementsAre(Trace{4, "Trying to stop supervision twice for link: 1"}));
    EXPECT_THAT(indications(), IsEmpty());
    EXPECT_EQ(link->disabled_reason, 2u);
}

TEST_F(LinkStatus, ChangesOnTheLinksOfThePortOnlyInTableOrder)
{
    ASSERT_EQ(create_link(session, {.cpm = "02:00:00:00:0C:02", .port = "IDL_B1", .vlan = 2, .app_links = {}}), 2u);
    ASSERT_EQ(create_link(session, {.cpm = "02:00:00:00:0C:03", .vlan = 3, .app_links = {}}), 3u);
    forget_records();
    set_port("IDLA1", 1, 0);
    EXPECT_THAT(indications(), ElementsAre("1:0/2", "3:0/2"));
    EXPECT_EQ(iml_link_look_up(2)->supervision_state, SUPERVISION_RUNNING);
}

TEST_F(LinkStatus, StaysWhenThePortIsUnknown)
{
    start_supervision_on_port("IDLB2");
    stop_supervision_on_port("IDLB2");
    EXPECT_EQ(fake::count_traced(1, "Failed to fetch port data"), 2u);
    EXPECT_THAT(indications(), IsEmpty());
}

TEST_F(LinkStatus, IsToldAlsoWhenSupervisionDoesNotStart)
{
    stop_supervision_on_port("IDLA1");
    forget_records();
    fake::set_start_results({2, 0});
    start_supervision_on_port("IDLA1");
    EXPECT_TRUE(fake::traced(1, "Supervision start failed for link: 1. Result: 2"));
    EXPECT_EQ(link->supervision_state, SUPERVISION_FAILED);
    EXPECT_NE(link->keep_alive_sessions, nullptr) << "keep-alive starts all the same";
    EXPECT_THAT(indications(), ElementsAre("1:0/4"));
    start_supervision_on_port("IDLA1");
    EXPECT_EQ(link->supervision_state, SUPERVISION_RUNNING) << "a later port up starts it again";
    EXPECT_EQ(fake::sessions().size(), 2u) << "and no keep-alive of the first time is left over";
}

TEST_F(LinkStatus, OfALinkOnATnPortWaitsForTheVlan)
{
    ASSERT_EQ(create_link(session, {.port = "TN_A", .vlan = 200, .app_links = {}}), 2u);
    const iml_link *tn = iml_link_look_up(2);
    EXPECT_EQ(tn->supervision_state, SUPERVISION_NOT_RUNNING);
    EXPECT_EQ(tn->disabled_reason, 4u);
    set_port("TNA", 1, 0);
    EXPECT_TRUE(fake::traced(4, "Trying to stop supervision twice for link: 2"));
    set_port("TNA", 1, 1);
    EXPECT_EQ(tn->supervision_state, SUPERVISION_NOT_RUNNING) << "its place is not known yet";
    add_vlan("TNA", 200, "eth_tna.200", "ns_200");
    EXPECT_EQ(tn->supervision_state, SUPERVISION_RUNNING);
    EXPECT_EQ(fake::sessions().at(tn->supervision_session_id).name_space, "ns_200");
}

} // namespace
