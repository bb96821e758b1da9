// The table of links.
#include "manager/table/link_table.hpp"

#include <gmock/gmock.h>

#include <random>
#include <set>

#include "manager/links/rtt.hpp"
#include "manager/ports/port_macs.hpp"
#include "support/daemon.hpp"

namespace
{

using daemon_test::APP_1;
using daemon_test::APP_2;
using daemon_test::Link;
using daemon_test::make_link_data;
using fake::Trace;
using testing::ElementsAre;

class LinkTable : public daemon_test::DaemonTest
{
protected:
    static iml_link *add(const Link &link = {}, uint32_t owner = 1)
    {
        iml_link *record = iml_link_alloc(make_link_data(link));
        record->connection_ref = owner;
        iml_link_insert(record);
        return record;
    }
    static void drop(uint32_t link_ref)
    {
        iml_link *link = iml_link_look_up(link_ref);
        iml_link_remove(link);
        iml_link_free(link);
    }
    static std::vector<uint32_t> refs()
    {
        std::vector<uint32_t> found;
        for (const iml_link *link = iml_link_first(); link != nullptr; link = link->next) {
            found.push_back(link->link_ref);
        }
        return found;
    }
};

// To a link that has none.
bool give_keep_alives(iml_link *link)
{
    keep_alive_array previous = {};
    const bool given = iml_link_renew_keep_alives(link, &previous);
    EXPECT_EQ(previous.sessions, nullptr);
    return given;
}

TEST_F(LinkTable, GivesReferencesFromOne)
{
    EXPECT_EQ(add()->link_ref, 1u);
    EXPECT_EQ(add()->link_ref, 2u);
    EXPECT_EQ(add()->link_ref, 3u);
    EXPECT_THAT(refs(), ElementsAre(1, 2, 3));
    EXPECT_EQ(iml_link_count(), 3u);
}

TEST_F(LinkTable, GivesTheLowestFreeReference)
{
    for (int i = 0; i < 4; ++i) {
        add();
    }
    drop(3);
    EXPECT_EQ(add()->link_ref, 3u);
    EXPECT_THAT(refs(), ElementsAre(1, 2, 3, 4));
    drop(2);
    EXPECT_EQ(add()->link_ref, 2u);
    EXPECT_EQ(add()->link_ref, 5u);
    EXPECT_THAT(refs(), ElementsAre(1, 2, 3, 4, 5));
}

TEST_F(LinkTable, GivesReferenceOneAtTheHead)
{
    add();
    add();
    add();
    drop(1);
    EXPECT_EQ(iml_link_first()->link_ref, 2u);
    EXPECT_EQ(add()->link_ref, 1u);
    EXPECT_THAT(refs(), ElementsAre(1, 2, 3));
    EXPECT_EQ(iml_link_first()->prev, nullptr);
}

TEST_F(LinkTable, AgreesWithANaiveListOverManyRandomSteps)
{
    std::mt19937 random(20); // NOLINT(cert-msc32-c,cert-msc51-cpp): the same walk every time
    std::set<uint32_t> model;
    for (int step = 0; step < 5000; ++step) {
        const bool grow = model.empty() || random() % 100 < (step < 2500 ? 60 : 40);
        if (grow) {
            uint32_t expected = 1;
            while (model.count(expected) == 1) {
                ++expected;
            }
            ASSERT_EQ(add()->link_ref, expected) << "step " << step;
            model.insert(expected);
        } else {
            auto victim = model.begin();
            std::advance(victim, static_cast<long>(random() % model.size()));
            drop(*victim);
            model.erase(victim);
        }
        ASSERT_EQ(iml_link_count(), model.size());
        if (step % 50 == 0) {
            ASSERT_EQ(refs(), std::vector<uint32_t>(model.begin(), model.end())) << "step " << step;
        }
    }
    for (uint32_t ref = 0; ref < 1000; ++ref) {
        ASSERT_EQ(iml_link_look_up(ref) != nullptr, model.count(ref) == 1) << ref;
    }
}

TEST_F(LinkTable, LinksBackwardAsForward)
{
    for (int i = 0; i < 5; ++i) {
        add();
    }
    drop(5);
    drop(3);
    add();
    for (const iml_link *link = iml_link_first(); link->next != nullptr; link = link->next) {
        EXPECT_EQ(link->next->prev, link);
    }
}

TEST_F(LinkTable, StartsALinkWithTheDefaultRttSettings)
{
    const iml_link *link = add();
    EXPECT_EQ(link->rtt.batchSize, 5);
    EXPECT_EQ(link->rtt.measureInterval, 1);
    EXPECT_EQ(link->rtt.frameSize, 64);
    EXPECT_EQ(link->rtt_enabled, 0u);
    EXPECT_EQ(link->status, 0u);
    EXPECT_EQ(link->supervision_state, 0u);
    EXPECT_EQ(link->supervision_session_id, 0u);
    EXPECT_EQ(link->keep_alive_sessions, nullptr);
    EXPECT_EQ(link->rtt_samples.count, 0u);
}

TEST_F(LinkTable, FindsByReferenceAndTracesWhenThereIsNone)
{
    const iml_link *link = add();
    EXPECT_EQ(iml_link_find_by_ref(1), link);
    EXPECT_TRUE(fake::traces().empty());
    EXPECT_EQ(iml_link_find_by_ref(2), nullptr);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{6, "Tried to fetch link with ref 2 that doesn't exist anymore."}));
}

TEST_F(LinkTable, FindsAnOwnersLinkWithoutATrace)
{
    const iml_link *link = add({}, 4);
    EXPECT_EQ(iml_link_find_owned(1, 4), link);
    EXPECT_EQ(iml_link_find_owned(1, 5), nullptr);
    EXPECT_EQ(iml_link_find_owned(2, 4), nullptr);
    EXPECT_TRUE(fake::traces().empty());
}

TEST_F(LinkTable, FindsByTheSessionThatWasSetLast)
{
    iml_link *link = add();
    iml_link_set_session(link, 70);
    EXPECT_EQ(iml_link_find_by_session(70), link);
    iml_link_set_session(link, 71);
    EXPECT_EQ(iml_link_find_by_session(70), nullptr);
    EXPECT_EQ(iml_link_find_by_session(71), link);
    iml_link_set_session(link, 0);
    EXPECT_EQ(iml_link_find_by_session(71), nullptr);
    EXPECT_EQ(iml_link_find_by_session(0), nullptr) << "0 means none";
    EXPECT_TRUE(fake::traces().empty());
}

TEST_F(LinkTable, FindsASessionThatWasSetBeforeTheLinkWasInserted)
{
    iml_link *link = iml_link_alloc(make_link_data({}));
    iml_link_set_session(link, 70);
    ASSERT_TRUE(give_keep_alives(link));
    iml_link_set_keep_alive_session(link, 0, 71);
    EXPECT_EQ(iml_link_find_by_session(70), nullptr) << "not in the table yet";
    EXPECT_EQ(keep_alive_find_by_session(71), nullptr);
    iml_link_insert(link);
    EXPECT_EQ(iml_link_find_by_session(70), link);
    EXPECT_EQ(keep_alive_find_by_session(71), &link->keep_alive_sessions[0]);
    iml_link_remove(link);
    EXPECT_EQ(iml_link_find_by_session(70), nullptr);
    EXPECT_EQ(keep_alive_find_by_session(71), nullptr);
    iml_link_free(link);
}

TEST_F(LinkTable, FindsTheFirstInTableOrderOfEqualSessions)
{
    iml_link *first = add();
    iml_link *second = add();
    iml_link *third = add();
    iml_link_set_session(second, 70);
    iml_link_set_session(third, 70);
    EXPECT_EQ(iml_link_find_by_session(70), second);
    iml_link_set_session(first, 70);
    EXPECT_EQ(iml_link_find_by_session(70), first);
}

TEST_F(LinkTable, FindsAKeepAliveOfAnyLinkAndSkipsLinksWithoutAny)
{
    add();
    iml_link *link = add({.app_links = {APP_1, APP_2}});
    ASSERT_TRUE(give_keep_alives(link));
    EXPECT_EQ(link->keep_alive_count, 2u);
    iml_link_set_keep_alive_session(link, 0, 80);
    iml_link_set_keep_alive_session(link, 1, 81);
    EXPECT_EQ(keep_alive_find_by_session(80), &link->keep_alive_sessions[0]);
    EXPECT_EQ(keep_alive_find_by_session(81), &link->keep_alive_sessions[1]);
    EXPECT_EQ(keep_alive_find_by_session(82), nullptr);
    EXPECT_EQ(keep_alive_find_by_session(0), nullptr);
    iml_link_free_keep_alives(link);
    EXPECT_EQ(keep_alive_find_by_session(80), nullptr);
    EXPECT_EQ(link->keep_alive_sessions, nullptr);
}

TEST_F(LinkTable, FindsTheFirstInTableOrderOfEqualKeepAlives)
{
    iml_link *first = add({.app_links = {APP_1, APP_2}});
    iml_link *second = add();
    ASSERT_TRUE(give_keep_alives(first));
    ASSERT_TRUE(give_keep_alives(second));
    iml_link_set_keep_alive_session(first, 0, 80);
    iml_link_set_keep_alive_session(first, 1, 80);
    iml_link_set_keep_alive_session(second, 0, 80);
    EXPECT_EQ(keep_alive_find_by_session(80), &first->keep_alive_sessions[0]);
    iml_link_set_keep_alive_session(first, 0, 0);
    EXPECT_EQ(keep_alive_find_by_session(80), &first->keep_alive_sessions[1]);
}

TEST_F(LinkTable, HasKeepAliveRoomForALinkWithoutAppLinks)
{
    iml_link *link = add({.app_links = {}});
    ASSERT_TRUE(give_keep_alives(link));
    EXPECT_EQ(link->keep_alive_count, 0u);
}

TEST_F(LinkTable, HasNoKeepAlivesWhenMemoryIsOut)
{
    iml_link *link = add();
    fake::fail_allocation(1);
    EXPECT_FALSE(give_keep_alives(link));
    EXPECT_EQ(link->keep_alive_sessions, nullptr);
    EXPECT_EQ(link->keep_alive_count, 0u);
}

TEST_F(LinkTable, LeavesTheDataWithTheCallerWhenMemoryIsOut)
{
    IemliLinkData *data = make_link_data({});
    fake::fail_allocation(1);
    EXPECT_EQ(iml_link_alloc(data), nullptr);
    free(data);
}

TEST_F(LinkTable, CopiesLinkDataWithAsManyAppLinksAsAreAskedFor)
{
    IemliLinkData *data = make_link_data({.app_links = {APP_1, APP_2}});
    IemliLinkData *shorter = iml_link_data_copy(data, 1);
    IemliLinkData *longer = iml_link_data_copy(data, 3);
    IemliLinkData *none = iml_link_data_copy(data, 0);
    EXPECT_EQ(shorter->numberOfAppLinks, 1u);
    EXPECT_EQ(memcmp(iemli_app_links(shorter), iemli_app_links(data), 12), 0);
    EXPECT_STREQ(shorter->imlPortName, "IDL_A1");
    EXPECT_EQ(shorter->vlanId, 100);
    EXPECT_EQ(longer->numberOfAppLinks, 3u);
    EXPECT_EQ(memcmp(iemli_app_links(longer), iemli_app_links(data), 24), 0);
    EXPECT_TRUE(mac_equal(iemli_app_links(longer)[2].nearEndAppMac, mac_address{}));
    EXPECT_EQ(none->numberOfAppLinks, 0u);
    fake::fail_allocation(1);
    EXPECT_EQ(iml_link_data_copy(data, 2), nullptr);
    for (IemliLinkData *block : {data, shorter, longer, none}) {
        free(block);
    }
}

TEST_F(LinkTable, TellsWhetherALinkIsOnAPortAndVlan)
{
    const iml_link *link = add({.port = "IDL_B1", .vlan = 7});
    EXPECT_TRUE(iml_link_is_on_port_vlan(link, "IDLB1", 7));
    EXPECT_FALSE(iml_link_is_on_port_vlan(link, "IDLB1", 8));
    EXPECT_FALSE(iml_link_is_on_port_vlan(link, "IDLB2", 7));
    EXPECT_FALSE(iml_link_is_on_port_vlan(link, "IDL_B1", 7)) << "the port is meant as IEPCSI names it";
}

TEST_F(LinkTable, TellsWhetherRttIsEnabled)
{
    iml_link *link = add();
    EXPECT_FALSE(iml_link_is_rtt_enabled(1));
    link->rtt_enabled = 1;
    EXPECT_TRUE(iml_link_is_rtt_enabled(1));
    EXPECT_FALSE(iml_link_is_rtt_enabled(2));
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{6, "Tried to fetch link with ref 2 that doesn't exist anymore."}));
}

TEST_F(LinkTable, StoresAStatusAndTracesTheOldAndTheNewOne)
{
    const iml_link *link = add();
    iml_link_set_status(1, IML_LINK_ENABLED, IML_LINK_REASON_NO_CONNECTIVITY);
    iml_link_set_status(1, IML_LINK_DISABLED, IML_LINK_REASON_DOWN);
    iml_link_set_status(1, IML_LINK_DISABLED, IML_LINK_REASON_LOCKED);
    EXPECT_EQ(link->status, 0u);
    EXPECT_EQ(link->disabled_reason, 3u);
    EXPECT_THAT(fake::traces(),
                ElementsAre(Trace{6, "Updated iml link status on link with ref 1. Old status disabled with invalid "
                                     "reason, new status enabled"},
                            Trace{6, "Updated iml link status on link with ref 1. Old status enabled, new status "
                                     "disabled with reason down"},
                            Trace{6, "Updated iml link status on link with ref 1. Old status disabled with reason "
                                     "down, new status disabled with reason locked"}));
}

TEST_F(LinkTable, ChangesNothingForAnUnknownReference)
{
    const iml_link *link = add();
    iml_link_set_status(9, IML_LINK_ENABLED, IML_LINK_REASON_DOWN);
    EXPECT_EQ(link->status, 0u);
    EXPECT_THAT(fake::traces(),
                ElementsAre(Trace{6, "Tried to update link status on link with ref 9 that doesn't exist anymore."}));
}

TEST_F(LinkTable, DeletesTheLinksOfOneConnectionOnly)
{
    start();
    add({.vlan = 1}, 1);
    add({.vlan = 2}, 2);
    add({.vlan = 3}, 1);
    iml_link_delete_all_of_connection(1);
    EXPECT_THAT(refs(), ElementsAre(2));
    EXPECT_EQ(link_procedure_count(), 2u);
    EXPECT_FALSE(fake::traced(6, "Conn_ref 1 tried to delete link with ref 2 that belongs to conn ref 2"));
    EXPECT_TRUE(numbers_to(daemon_test::CLIENT).empty());
}

TEST_F(LinkTable, ForgetsEverythingWhenItIsCleared)
{
    iml_link *link = add();
    iml_link_set_session(link, 70);
    const supervision_rtt rtt = {0, 1};
    rtt_record_sample(0, &rtt, link);
    iml_link_table_clear();
    EXPECT_EQ(iml_link_first(), nullptr);
    EXPECT_EQ(iml_link_find_by_session(70), nullptr);
    EXPECT_EQ(add()->link_ref, 1u);
}

// ---- MACs of the own ports ----

TEST_F(LinkTable, FetchesTheLocalSupervisionMacOfAPort)
{
    start();
    mac_address mac = {};
    uint32_t reason = 0;
    EXPECT_TRUE(fetch_local_supervision_mac("IDL_B1", &mac, &reason));
    EXPECT_TRUE(mac_equal(mac, daemon_test::to_mac("02:00:00:00:00:B1")));
    EXPECT_EQ(reason, 0u);
}

TEST_F(LinkTable, RefusesTheMacOfAnUnknownPort)
{
    start();
    mac_address mac = {};
    uint32_t reason = 0;
    EXPECT_FALSE(fetch_local_supervision_mac("IDL_B2", &mac, &reason));
    EXPECT_EQ(reason, 4u);
    EXPECT_TRUE(fake::traced(7, "Could not fetch port data for port IDLB2"));
}

TEST_F(LinkTable, RefusesTheMacOfAKnownPortBeforeTheManagerIsInitiated)
{
    start({"iepcsi-server"});
    mac_address mac = {};
    uint32_t reason = 0;
    EXPECT_FALSE(fetch_local_supervision_mac("IDL_B1", &mac, &reason));
    EXPECT_EQ(reason, 99u);
    EXPECT_THAT(notices(), ElementsAre(Trace{7, "Could not fetch MAC. VORN manager is not initiated"}));
}

TEST_F(LinkTable, KnowsTheMacsOfTheOwnPorts)
{
    start();
    uint32_t reason = 0;
    EXPECT_TRUE(check_mac(daemon_test::to_mac("02:00:00:00:00:A1"), &reason));
    EXPECT_TRUE(check_mac(daemon_test::to_mac("02:00:00:00:00:1A"), &reason));
    EXPECT_FALSE(check_mac(daemon_test::to_mac("02:00:00:00:00:A2"), &reason));
    EXPECT_EQ(reason, 0u);
}

TEST_F(LinkTable, ChecksNoMacBeforeTheManagerIsInitiated)
{
    start({"iepcsi-server"});
    uint32_t reason = 0;
    EXPECT_FALSE(check_mac(daemon_test::to_mac("02:00:00:00:00:A1"), &reason));
    EXPECT_EQ(reason, 99u);
    EXPECT_THAT(notices(), ElementsAre(Trace{7, "Could not check MAC. VORN manager is not initiated"}));
}

} // namespace
