// What the handlers check, hand over and answer: create, update, delete, get-MAC, enable and disable RTT.
#include <gmock/gmock.h>

#include "iemli/iemli_checks.hpp"
#include "iemli/iemli_handlers.hpp"
#include "neighbours.hpp"
#include "support/nobody.hpp"

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

// Two sessions; requests come from client A, session 1.
class IemliRequestTest : public IemliTest
{
protected:
    void SetUp() override
    {
        IemliTest::SetUp();
        open_both();
    }

    // The request is answered at once with this reject, nothing is handed over, and the reject is traced.
    static void expect_refused(const Bytes &request, uint32_t rej_msgno, uint32_t reason, const std::string &trace)
    {
        fake::traces().clear();
        EXPECT_TRUE(offer(CLIENT_A, request));
        expect_sent(CLIENT_A, rej(rej_msgno, 0x61, A_REF, reason));
        expect_nothing_sent();
        EXPECT_THAT(calls(), IsEmpty());
        EXPECT_THAT(traces_of(18), ElementsAre(trace));
        EXPECT_EQ(neighbours::open_procedures(), 0U);
    }

    // The request is handed over with this call; its procedure is rejected, so that the next request can come.
    static void expect_handed_over(const Bytes &request, const std::string &call)
    {
        EXPECT_TRUE(offer(CLIENT_A, request));
        expect_nothing_sent();
        EXPECT_THAT(calls(), ElementsAre(call));
        ASSERT_EQ(neighbours::open_procedures(), 1U);
        neighbours::reject(99);
        fake::sent().clear();
        fake::traces().clear();
    }
};

class IemliCreate : public IemliRequestTest
{
protected:
    static void expect_rejected(const Link &link, uint32_t reason, const std::string &name)
    {
        expect_refused(create_req(0x61, 1, link), 0x1B0E0D, reason,
                       "IEMLI_CREATE_IML_LINK_REJ: procedure_ref=0x61, connection_ref=0xa0, reason = " + name);
    }

    static void expect_accepted(const Link &link)
    {
        expect_handed_over(create_req(0x61, 1, link), "create " + fake::to_hex(link_data(link)));
    }
};

TEST_F(IemliCreate, IsHandedOverWithItsLinkAndARecordOfTheRequest)
{
    EXPECT_TRUE(offer(CLIENT_A, create_req(0x61, 1, {.apps = {APP_1, APP_2}})));
    const Bytes link = fake::Builder()
                           .hex("05 020000000c01")
                           .hex("49444c5f41310000000000000000000000")
                           .u16(100)
                           .zeros(2)
                           .u32(2)
                           .hex("020000000101 020000000201")
                           .hex("020000000102 020000000202");
    EXPECT_THAT(calls(), ElementsAre("create " + fake::to_hex(link)));
    const IemliPendingRequest *request = neighbours::open_request();
    EXPECT_EQ(request->server_conn_ref, 1U);
    EXPECT_EQ(request->procedure_ref, 0x61U);
    EXPECT_EQ(request->link_ref, 0U);
    EXPECT_EQ(request->action, 0U);
    expect_nothing_sent();
    expect_traces(
        {{17, "IEMLI_CREATE_INTER_ME_LINK_REQ"},
         {19, "handle_create_iml_link_req(): session information: client_conn_ref = 160, server_conn_ref = 1, "
              "last_procedure_ref = 97"},
         {19, "handle_create_iml_link_req(): request information: header.connection_ref = 1, header.procedure_ref = "
              "97"},
         {19, "handle_create_iml_link_req(): link information: vlanId = 100, imlPortName = IDL_A1, nearEndMpId = 5"},
         {19, "handle_create_iml_link_req(): link MAC information: numberOfAppLinks = 2, farEndCpmMac = "
              "02:00:00:00:0C:01"},
         {19, "handle_create_iml_link_req(): link MAC information: appLink[1] appLink.nearEndAppMac = "
              "02:00:00:00:01:01, appLink.farEndAppMac = 02:00:00:00:02:01"},
         {19, "handle_create_iml_link_req(): link MAC information: appLink[2] appLink.nearEndAppMac = "
              "02:00:00:00:01:02, appLink.farEndAppMac = 02:00:00:00:02:02"}});
}

TEST_F(IemliCreate, NeedsAnMpIdFrom1To63)
{
    expect_rejected({.mp_id = 0}, 9, "IEMLI_REJ_MP_ID_NOT_READY");
    expect_rejected({.mp_id = 64}, 9, "IEMLI_REJ_MP_ID_NOT_READY");
    expect_rejected({.mp_id = 255}, 9, "IEMLI_REJ_MP_ID_NOT_READY");
    expect_accepted({.mp_id = 1});
    expect_accepted({.mp_id = 63});
}

TEST_F(IemliCreate, NeedsAVlanFrom1To4094)
{
    expect_rejected({.vlan = 0}, 7, "IEMLI_REJ_INVALID_VLAN_ID");
    expect_rejected({.vlan = 4095}, 7, "IEMLI_REJ_INVALID_VLAN_ID");
    expect_rejected({.vlan = 65535}, 7, "IEMLI_REJ_INVALID_VLAN_ID");
    expect_accepted({.vlan = 1});
    expect_accepted({.vlan = 4094});
}

TEST_F(IemliCreate, IsRefusedWithAnOwnPortAsItsFarEnd)
{
    neighbours::add_port("TNA", "02:00:00:00:00:A2");
    expect_rejected({.cpm = "02:00:00:00:00:A1"}, 11, "IEMLI_REJ_REMOTE_CPM_MAC_CONFLICT");
    expect_rejected({.cpm = "02:00:00:00:00:A2"}, 11, "IEMLI_REJ_REMOTE_CPM_MAC_CONFLICT");
}

TEST_F(IemliCreate, IsNotRefusedForItsFarEndWhileTheManagerCannotTell)
{
    set_manager_state(KAP_VORN_FAULTY_STATE);
    EXPECT_TRUE(offer(CLIENT_A, create_req(0x61, 1, {.cpm = "02:00:00:00:00:A1"})));
    EXPECT_EQ(neighbours::open_procedures(), 1U);
    EXPECT_THAT(traces_of(7), ElementsAre("Could not check MAC. VORN manager is not initiated"));
}

TEST_F(IemliCreate, IsRefusedForALinkThatExists)
{
    add_link(2, {});
    expect_rejected({}, 6, "IEMLI_REJ_LINK_ALREADY_CREATED");
    expect_rejected({.apps = {APP_1}}, 6, "IEMLI_REJ_LINK_ALREADY_CREATED");
}

TEST_F(IemliCreate, IsAnotherLinkWhenOneOfItsFourTraitsDiffers)
{
    add_link(2, {});
    expect_accepted({.vlan = 101});
    expect_accepted({.mp_id = 6});
    expect_accepted({.cpm = "02:00:00:00:0C:02"});
    expect_accepted({.cpm = "02:00:00:00:0C:02", .port = "IDL_B1"});
}

TEST_F(IemliCreate, ComparesSixteenCharactersOfPortNames)
{
    const uint32_t link_ref = add_link(2, {});
    memcpy(iml_link_find_by_ref(link_ref)->link_data->imlPortName, "ABCDEFGHIJKLMNOPX", 17);
    expect_rejected({.port = "ABCDEFGHIJKLMNOPY"}, 6, "IEMLI_REJ_LINK_ALREADY_CREATED");
    expect_rejected({.port = "ABCDEFGHIJKLMNOXX"}, 99, "IEMLI_REJ_OTHER_REASON");
}

TEST_F(IemliCreate, IsRefusedWithAFarEndAppOfAnotherPortInItsVlan)
{
    add_link(2, {.cpm = "02:00:00:00:0C:02", .port = "IDL_B1", .apps = {APP_1, APP_2}});
    const AppLink far_end_of_2 = {"02:00:00:00:01:09", APP_2.far_end};
    expect_rejected({.apps = {APP_3, far_end_of_2}}, 14, "IEMLI_REJ_APP_LINK_ALREADY_USED");
    expect_accepted({.vlan = 101, .apps = {APP_3, far_end_of_2}});
    expect_accepted({.port = "IDL_B1", .apps = {APP_3, far_end_of_2}});
    expect_accepted({.apps = {{APP_2.near_end, APP_3.far_end}}});
}

TEST_F(IemliCreate, IsRefusedWithTheFarEndOfAnotherPortInItsVlan)
{
    add_link(2, {.port = "IDL_B1"});
    expect_rejected({}, 99, "IEMLI_REJ_OTHER_REASON");
    expect_rejected({.mp_id = 6}, 99, "IEMLI_REJ_OTHER_REASON");
    expect_accepted({.vlan = 101});
}

TEST_F(IemliCreate, PrefersTheSharedAppOverTheSharedFarEnd)
{
    add_link(2, {.port = "IDL_B1", .apps = {APP_1}});
    expect_rejected({.apps = {APP_1}}, 14, "IEMLI_REJ_APP_LINK_ALREADY_USED");
}

TEST_F(IemliCreate, IsHeldAgainstLinksInTableOrder)
{
    add_link(2, {.port = "IDL_B1"});
    add_link(2, {});
    expect_rejected({}, 99, "IEMLI_REJ_OTHER_REASON");
}

TEST_F(IemliCreate, IsRefusedWithTheFarEndAsAnApp)
{
    expect_rejected({.apps = {APP_1, {APP_2.near_end, "02:00:00:00:0C:01"}}}, 12, "IEMLI_REJ_SAME_CPM_APP_MAC");
    expect_rejected({.apps = {APP_1, {"02:00:00:00:0C:01", APP_2.far_end}}}, 12, "IEMLI_REJ_SAME_CPM_APP_MAC");
}

TEST_F(IemliCreate, IsRefusedWithAnAppLinkToItself)
{
    expect_rejected({.apps = {APP_1, {APP_2.near_end, APP_2.near_end}}}, 13, "IEMLI_REJ_SAME_SRC_DST_APP_MAC");
}

TEST_F(IemliCreate, IsRefusedWithAnAppLinkTwice)
{
    expect_rejected({.apps = {APP_1, APP_2, APP_1}}, 15, "IEMLI_REJ_DUPLICATE_APP_LINKS");
    expect_accepted({.apps = {APP_1, {APP_1.near_end, APP_2.far_end}, {APP_2.near_end, APP_1.far_end}}});
}

TEST_F(IemliCreate, ChecksAppLinksInOrder)
{
    const AppLink to_itself = {APP_2.near_end, APP_2.near_end};
    const AppLink to_far_end = {APP_3.near_end, "02:00:00:00:0C:01"};
    expect_rejected({.apps = {to_itself, to_far_end}}, 13, "IEMLI_REJ_SAME_SRC_DST_APP_MAC");
    expect_rejected({.apps = {APP_1, APP_1, to_far_end}}, 15, "IEMLI_REJ_DUPLICATE_APP_LINKS");
    expect_rejected({.apps = {{"02:00:00:00:0C:01", "02:00:00:00:0C:01"}}}, 12, "IEMLI_REJ_SAME_CPM_APP_MAC");
}

TEST_F(IemliCreate, NeedsAKnownPort)
{
    expect_rejected({.port = nobody::PORT}, 4, "IEMLI_REJ_UNKNOWN_PORT_NAME");
    expect_rejected({.port = "IDLA1"}, 4, "IEMLI_REJ_UNKNOWN_PORT_NAME");
    expect_rejected({.port = ""}, 4, "IEMLI_REJ_UNKNOWN_PORT_NAME");
    expect_accepted({.port = "TN_D"});
}

TEST_F(IemliCreate, ReportsTheFirstOfItsFaults)
{
    add_link(2, {.port = "IDL_X"});
    Link link = {.mp_id = 0, .cpm = "02:00:00:00:00:A1", .port = "IDL_X", .vlan = 0, .apps = {APP_1, APP_1}};
    expect_rejected(link, 9, "IEMLI_REJ_MP_ID_NOT_READY");
    link.mp_id = 5;
    expect_rejected(link, 7, "IEMLI_REJ_INVALID_VLAN_ID");
    link.vlan = 100;
    expect_rejected(link, 11, "IEMLI_REJ_REMOTE_CPM_MAC_CONFLICT");
    link.cpm = "02:00:00:00:0C:01";
    expect_rejected(link, 6, "IEMLI_REJ_LINK_ALREADY_CREATED");
    link.mp_id = 6;
    expect_rejected(link, 15, "IEMLI_REJ_DUPLICATE_APP_LINKS");
    link.apps = {APP_1};
    expect_rejected(link, 4, "IEMLI_REJ_UNKNOWN_PORT_NAME");
}

TEST_F(IemliCreate, HandsItsLinkOverAsItCameWithWhateverStandsBehindThePortName)
{
    Bytes message = create_req(0x61, 1, {});
    memcpy(message.data() + 19, "IDL_A1\0XXXXXXXXXX", 17);
    EXPECT_TRUE(offer(CLIENT_A, message));
    const Bytes link =
        fake::Builder().hex("05 020000000c01").hex("49444c5f41310058585858585858585858").u16(100).zeros(18);
    EXPECT_THAT(calls(), ElementsAre("create " + fake::to_hex(link)));
    EXPECT_THAT(traces_of(19)[2], testing::EndsWith("imlPortName = IDL_A1, nearEndMpId = 5"));
}

TEST_F(IemliCreate, TracesNoMoreThanThePortNamesField)
{
    expect_rejected({.port = "ABCDEFGHIJKLMNOPQ"}, 4, "IEMLI_REJ_UNKNOWN_PORT_NAME");
    EXPECT_THAT(traces_of(19)[2], testing::EndsWith("imlPortName = ABCDEFGHIJKLMNOP, nearEndMpId = 5"));
}

TEST_F(IemliCreate, TakesAMessageThatIsLongerThanItsCount)
{
    Bytes message = create_req(0x61, 1, {.apps = {APP_1, APP_2, APP_3}});
    fake::put_u32(message, 40, 1);
    EXPECT_TRUE(offer(CLIENT_A, message));
    EXPECT_THAT(calls(), ElementsAre("create " + fake::to_hex(link_data({.apps = {APP_1}}))));
}

TEST_F(IemliCreate, IsRefusedWithoutMemory)
{
    fake::fail_allocation(1);
    expect_rejected({}, 99, "IEMLI_REJ_OTHER_REASON");
    EXPECT_THAT(traces_of(1), ElementsAre("Memory allocation failed"));
    expect_accepted({});
}

// ---- Update ----

class IemliUpdate : public IemliRequestTest
{
protected:
    void SetUp() override
    {
        IemliRequestTest::SetUp();
        ASSERT_EQ(add_link(1, {.apps = {APP_1, APP_2}}), 1U);
    }

    static void expect_rejected(const std::vector<AppLink> &apps, uint32_t reason, const std::string &name,
                                uint32_t link_ref = 1)
    {
        expect_refused(update_req(0x61, 1, link_ref, apps), 0x1B0E10, reason,
                       "IEMLI_UPDATE_IML_LINK_REJ: procedure_ref=0x61, connection_ref=0xa0, reason = " + name);
    }

    static void expect_accepted(const std::vector<AppLink> &apps)
    {
        expect_handed_over(update_req(0x61, 1, 1, apps), "update 1 " + fake::to_hex(app_link_array(apps)));
    }
};

TEST_F(IemliUpdate, IsHandedOverWithTheNewAppLinksAndARecordOfTheRequest)
{
    EXPECT_TRUE(offer(CLIENT_A, update_req(0x61, 1, 1, {APP_2, APP_3})));
    EXPECT_THAT(calls(), ElementsAre("update 1 "
                                     "020000000102020000000202"
                                     "020000000103020000000203"));
    const IemliPendingRequest *request = neighbours::open_request();
    EXPECT_EQ(request->server_conn_ref, 1U);
    EXPECT_EQ(request->procedure_ref, 0x61U);
    EXPECT_EQ(request->link_ref, 1U);
    EXPECT_EQ(request->action, 1U);
    expect_nothing_sent();
    expect_traces(
        {{17, "IEMLI_UPDATE_INTER_ME_LINK_REQ"},
         {19, "handle_update_iml_link_req(): session information: client_conn_ref = 160, server_conn_ref = 1, "
              "last_procedure_ref = 97"},
         {19, "handle_update_iml_link_req(): request information: header.connection_ref = 1, header.procedure_ref = "
              "97"},
         {19, "handle_update_iml_link_req(): link MAC information: numberOfAppLinks = 2"},
         {19, "handle_update_iml_link_req(): link MAC information: appLink[1], appLink.nearEndAppMac = "
              "02:00:00:00:01:02, appLink.farEndAppMac = 02:00:00:00:02:02"},
         {19, "handle_update_iml_link_req(): link MAC information: appLink[2], appLink.nearEndAppMac = "
              "02:00:00:00:01:03, appLink.farEndAppMac = 02:00:00:00:02:03"}});
}

TEST_F(IemliUpdate, NeedsALink)
{
    expect_rejected({APP_3}, 3, "IEMLI_REJ_UNKNOWN_LINK_REF", 2);
    EXPECT_THAT(traces_of(6), ElementsAre("Tried to fetch link with ref 2 that doesn't exist anymore."));
}

TEST_F(IemliUpdate, LeavesTheOwnerToTheProcedure)
{
    EXPECT_TRUE(offer(CLIENT_B, update_req(0x61, 2, 1, {APP_3})));
    EXPECT_THAT(calls(), ElementsAre("update 1 " + fake::to_hex(app_link_array({APP_3}))));
    EXPECT_EQ(neighbours::open_request()->server_conn_ref, 2U);
}

TEST_F(IemliUpdate, MustChangeSomething) { expect_rejected({APP_1, APP_2}, 8, "IEMLI_REJ_LINK_DATA_NO_CHANGE"); }

TEST_F(IemliUpdate, InAnotherOrderChangesNothing)
{
    expect_rejected({APP_2, APP_1}, 8, "IEMLI_REJ_LINK_DATA_NO_CHANGE");
}

TEST_F(IemliUpdate, OfNothingToNothingChangesNothing)
{
    const uint32_t link_ref = add_link(1, {.vlan = 101});
    expect_rejected({}, 8, "IEMLI_REJ_LINK_DATA_NO_CHANGE", link_ref);
}

TEST_F(IemliUpdate, MayTakeEverythingAway) { expect_accepted({}); }

TEST_F(IemliUpdate, MayExchangeOneMac)
{
    expect_accepted({APP_1, {APP_2.near_end, APP_3.far_end}});
    expect_accepted({APP_1, {APP_3.near_end, APP_2.far_end}});
    expect_accepted({APP_1});
    expect_accepted({APP_1, APP_2, APP_3});
}

TEST_F(IemliUpdate, IsRefusedWithTheFarEndAsAnApp)
{
    expect_rejected({{APP_3.near_end, "02:00:00:00:0C:01"}}, 12, "IEMLI_REJ_SAME_CPM_APP_MAC");
    expect_rejected({{"02:00:00:00:0C:01", APP_3.far_end}}, 12, "IEMLI_REJ_SAME_CPM_APP_MAC");
}

TEST_F(IemliUpdate, IsRefusedWithAnAppLinkToItself)
{
    expect_rejected({{APP_3.near_end, APP_3.near_end}}, 13, "IEMLI_REJ_SAME_SRC_DST_APP_MAC");
}

TEST_F(IemliUpdate, IsRefusedWithAnAppLinkTwice)
{
    expect_rejected({APP_3, APP_3}, 15, "IEMLI_REJ_DUPLICATE_APP_LINKS");
    expect_rejected({APP_1, APP_1}, 15, "IEMLI_REJ_DUPLICATE_APP_LINKS");
}

TEST_F(IemliUpdate, IsRefusedWithAFarEndAppOfAnotherPortInItsVlan)
{
    add_link(2, {.cpm = "02:00:00:00:0C:02", .port = "IDL_B1", .apps = {APP_3}});
    expect_rejected({APP_1, APP_3}, 14, "IEMLI_REJ_APP_LINK_ALREADY_USED");
}

TEST_F(IemliUpdate, MayShareAFarEndAppWithLinksOfItsPortAndOfOtherVlans)
{
    add_link(2, {.cpm = "02:00:00:00:0C:02", .port = "IDL_B1", .vlan = 101, .apps = {APP_3}});
    add_link(2, {.cpm = "02:00:00:00:0C:03", .apps = {APP_3}});
    expect_accepted({APP_1, APP_3});
}

TEST_F(IemliUpdate, IsRefusedWithoutMemory)
{
    for (const unsigned nth : {1U, 2U}) {
        fake::fail_allocation(nth);
        expect_rejected({APP_3}, 99, "IEMLI_REJ_OTHER_REASON");
        EXPECT_THAT(traces_of(1), ElementsAre("Memory allocation failed"));
    }
    expect_accepted({APP_3});
}

// ---- Delete ----

class IemliDelete : public IemliRequestTest
{
};

TEST_F(IemliDelete, IsHandedOverUnchecked)
{
    EXPECT_TRUE(offer(CLIENT_A, delete_req(0x61, 1, 12345)));
    EXPECT_THAT(calls(), ElementsAre("delete 12345 of 1"));
    const IemliPendingRequest *request = neighbours::open_request();
    EXPECT_EQ(request->server_conn_ref, 1U);
    EXPECT_EQ(request->procedure_ref, 0x61U);
    EXPECT_EQ(request->link_ref, 12345U);
    EXPECT_EQ(request->action, 2U);
    expect_nothing_sent();
    expect_traces(
        {{17, "IEMLI_DELETE_INTER_ME_LINK_REQ"},
         {19, "handle_delete_iml_link_req(): session information: client_conn_ref = 160, server_conn_ref = 1, "
              "last_procedure_ref = 97"},
         {19, "handle_delete_iml_link_req(): request information: header.connection_ref = 1, header.procedure_ref = "
              "97"},
         {19, "handle_delete_iml_link_req(): link_ref = 12345"}});
}

TEST_F(IemliDelete, IsConfirmedAtOnceWhenNoProcedureIsOpened)
{
    neighbours::set_delete_opens(false);
    EXPECT_TRUE(offer(CLIENT_A, delete_req(0x61, 1, 7)));
    expect_sent(CLIENT_A, header(0x1B0E12, 0x61, A_REF));
    fake::traces().clear();
    // Nobody is held up by it.
    EXPECT_TRUE(offer(CLIENT_B, delete_req(0x62, 2, 8)));
    expect_sent(CLIENT_B, header(0x1B0E12, 0x62, B_REF));
    EXPECT_THAT(traces_of(5), IsEmpty());
}

TEST_F(IemliDelete, IsConfirmedWithoutMemory)
{
    fake::fail_allocation(1);
    EXPECT_TRUE(offer(CLIENT_A, delete_req(0x61, 1, 7)));
    expect_sent(CLIENT_A, header(0x1B0E12, 0x61, A_REF));
    EXPECT_THAT(traces_of(1), ElementsAre("Memory allocation failed"));
    EXPECT_THAT(calls(), IsEmpty());
}

// ---- Get local supervision MAC ----

class IemliGetMac : public IemliRequestTest
{
protected:
    static void expect_confirmed(const std::string &name_bytes)
    {
        EXPECT_TRUE(offer(CLIENT_A, get_mac_req(0x61, 1, 9, name_bytes)));
        expect_sent(CLIENT_A,
                    Builder{header(0x1B0E09, 0x61, A_REF)}.u8(9).text("IDL_A1", 16).mac("02:00:00:00:00:A1").u8(0));
    }

    static void expect_rejected(const std::string &name_bytes, uint32_t reason, const std::string &name)
    {
        expect_refused(get_mac_req(0x61, 1, 9, name_bytes), 0x1B0E0A, reason,
                       "IEMLI_GET_LOCAL_SUPERVISION_MAC_REJ: procedure_ref=0x61, connection_ref=0xa0, reason=" + name);
    }
};

TEST_F(IemliGetMac, IsConfirmedWithThePortsMac)
{
    expect_confirmed(std::string("IDL_A1\0", 7));
    expect_traces(
        {{17, "IEMLI_GET_LOCAL_SUPERVISION_MAC_REQ"},
         {19, "handle_get_local_supervision_mac_req(): session information: client_conn_ref = 160, server_conn_ref = "
              "1, last_procedure_ref = 0"},
         {19, "handle_get_local_supervision_mac_req(): request information: header.connection_ref = 1, "
              "header.procedure_ref = 97"},
         {19, "handle_get_local_supervision_mac_req(): imlPortName = IDL_A1, mpId = 9"},
         {18, "IEMLI_GET_LOCAL_SUPERVISION_MAC_CFM: procedure_ref=0x61, connection_ref=0xa0,  port_name=IDL_A1, "
              "02:00:00:00:00:A1"}});
}

TEST_F(IemliGetMac, ReadsTheNameToItsEndOrToThatOfTheMessage)
{
    expect_confirmed("IDL_A1");
    expect_confirmed(std::string("IDL_A1") + std::string(13, '\0'));
    expect_confirmed(std::string("IDL_A1\0garbage", 14));
}

TEST_F(IemliGetMac, IsRefusedForAnUnknownPort)
{
    expect_rejected("IDL_A", 4, "IEMLI_REJ_UNKNOWN_PORT_NAME");
    expect_rejected(std::string("\0", 1), 4, "IEMLI_REJ_UNKNOWN_PORT_NAME");
    expect_rejected("IDL_B1", 4, "IEMLI_REJ_UNKNOWN_PORT_NAME");
}

TEST_F(IemliGetMac, DumpsTheNameToItsEndOrToThatOfTheMessage)
{
    const std::string dump = "handle_get_local_supervision_mac_req(): imlPortName = ";
    for (const std::string &name : {std::string("ABCDEFGHIJKLMNOPQRSTUVWXYZ"), std::string(300, 'x')}) {
        expect_rejected(name, 4, "IEMLI_REJ_UNKNOWN_PORT_NAME");
        EXPECT_EQ(traces_of(19)[2], dump + name + ", mpId = 9");
        fake::traces().clear();
        expect_rejected(name + std::string("\0garbage", 8), 4, "IEMLI_REJ_UNKNOWN_PORT_NAME");
        EXPECT_EQ(traces_of(19)[2], dump + name + ", mpId = 9");
        fake::traces().clear();
    }
    const std::string endless(100000, 'x');
    expect_rejected(endless, 4, "IEMLI_REJ_UNKNOWN_PORT_NAME");
    EXPECT_EQ(traces_of(19)[2], (dump + endless).substr(0, traces_of(19)[2].size()));
    EXPECT_GT(traces_of(19)[2].size(), 1000U);
}

TEST_F(IemliGetMac, DoesNotTakeALongerNameForThatOfAPort)
{
    expect_rejected("IDL_A1_AND_MORE_THAN_16", 4, "IEMLI_REJ_UNKNOWN_PORT_NAME");
}

TEST_F(IemliGetMac, IsRefusedWhileTheManagerIsNotInitiated)
{
    set_manager_state(KAP_VORN_SERVICES_UP);
    expect_rejected("IDL_A1", 99, "IEMLI_REJ_OTHER_REASON");
    EXPECT_THAT(traces_of(7), ElementsAre("Could not fetch MAC. VORN manager is not initiated"));
}

// ---- RTT ----

class IemliRtt : public IemliRequestTest
{
protected:
    void SetUp() override
    {
        IemliRequestTest::SetUp();
        ASSERT_EQ(add_link(1, {}), 1U);
        ASSERT_EQ(add_link(2, {.vlan = 101}), 2U);
    }

    static void expect_enabled(uint16_t batch, uint16_t interval, uint16_t frame)
    {
        EXPECT_TRUE(offer(CLIENT_A, enable_rtt_req(0x61, 1, 1, batch, interval, frame)));
        expect_sent(CLIENT_A, header(0x1B0E15, 0x61, A_REF));
        EXPECT_THAT(calls(), ElementsAre("rtt enable 1 " + std::to_string(batch) + "/" + std::to_string(interval) +
                                         "/" + std::to_string(frame)));
    }

    static void expect_invalid(uint16_t batch, uint16_t interval, uint16_t frame)
    {
        expect_refused(enable_rtt_req(0x61, 1, 1, batch, interval, frame), 0x1B0E16, 17,
                       "IEMLI_ENABLE_INTER_ME_LINK_RTT_REJ: procedure_ref=0x61, connection_ref=0xa0, "
                       "reason=IEMLI_REJ_INVALID_RTT_CONFIG_PARAM");
    }

    static void expect_unknown(uint32_t link_ref)
    {
        expect_refused(enable_rtt_req(0x61, 1, link_ref, 5, 1, 64), 0x1B0E16, 3,
                       "IEMLI_ENABLE_INTER_ME_LINK_RTT_REJ: procedure_ref=0x61, connection_ref=0xa0, "
                       "reason=IEMLI_REJ_UNKNOWN_LINK_REF");
    }
};

TEST_F(IemliRtt, IsEnabledWithTheSettingsOfTheRequest)
{
    expect_enabled(4, 15, 700);
    expect_traces(
        {{17, "IEMLI_ENABLE_INTER_ME_LINK_RTT_REQ"},
         {19, "handle_enable_inter_me_link_rtt_req(): session information: client_conn_ref = 160, server_conn_ref = "
              "1, last_procedure_ref = 0"},
         {19, "handle_enable_inter_me_link_rtt_req(): request information: header.connection_ref = 1, "
              "header.procedure_ref = 97"},
         {19, "handle_enable_inter_me_link_rtt_req(): link_reference = 1, batchSize = 4, frameSize = 700, "
              "measureInterval 15"},
         {18, "IEMLI_ENABLE_INTER_ME_LINK_RTT_CFM: procedure_ref=0x61, connection_ref=0xa0"}});
}

TEST_F(IemliRtt, TakesSettingsWithinTheirLimits)
{
    expect_enabled(2, 1, 64);
    expect_enabled(60, 1, 64);
    expect_enabled(2, 30, 64);
    expect_enabled(4, 15, 64);
    expect_enabled(5, 1, 1500);
}

TEST_F(IemliRtt, NeedsABatchFrom2To60)
{
    expect_invalid(0, 1, 64);
    expect_invalid(1, 1, 64);
    expect_invalid(61, 1, 64);
}

TEST_F(IemliRtt, NeedsAnIntervalFrom1To30)
{
    expect_invalid(2, 0, 64);
    expect_invalid(2, 31, 64);
}

TEST_F(IemliRtt, NeedsAFrameFrom64To1500)
{
    expect_invalid(5, 1, 63);
    expect_invalid(5, 1, 1501);
}

TEST_F(IemliRtt, NeedsAWholeNumberOfBatchesInSixtySeconds)
{
    expect_invalid(7, 8, 64);
    expect_invalid(3, 30, 64);
    expect_invalid(31, 2, 64);
    expect_invalid(60, 30, 64);
}

TEST_F(IemliRtt, IsEnabledOnOwnLinksOnly)
{
    expect_unknown(2);
    expect_unknown(3);
    EXPECT_THAT(traces_of(6), ElementsAre("Tried to fetch link with ref 3 that doesn't exist anymore."));
}

TEST_F(IemliRtt, IsNotEnabledTwice)
{
    iml_link_find_by_ref(1)->rtt_enabled = 1;
    expect_refused(enable_rtt_req(0x61, 1, 1, 1, 1, 64), 0x1B0E16, 18,
                   "IEMLI_ENABLE_INTER_ME_LINK_RTT_REJ: procedure_ref=0x61, connection_ref=0xa0, "
                   "reason=IEMLI_REJ_RTT_ALREADY_ENABLED");
}

TEST_F(IemliRtt, IsRejectedWhenTheManagerCannotEnableIt)
{
    neighbours::set_rtt_enable_result(false);
    EXPECT_TRUE(offer(CLIENT_A, enable_rtt_req(0x61, 1, 1, 5, 1, 64)));
    expect_sent(CLIENT_A, rej(0x1B0E16, 0x61, A_REF, 99));
}

TEST_F(IemliRtt, IsDisabledWhereItIsEnabled)
{
    iml_link_find_by_ref(1)->rtt_enabled = 1;
    EXPECT_TRUE(offer(CLIENT_A, disable_rtt_req(0x61, 1, 1)));
    expect_sent(CLIENT_A, header(0x1B0E18, 0x61, A_REF));
    EXPECT_THAT(calls(), ElementsAre("rtt disable 1"));
    expect_traces(
        {{17, "IEMLI_DISABLE_INTER_ME_LINK_RTT_REQ"},
         {19, "handle_disable_inter_me_link_rtt_req(): session information: client_conn_ref = 160, server_conn_ref = "
              "1, last_procedure_ref = 0"},
         {19, "handle_disable_inter_me_link_rtt_req(): request information: header.connection_ref = 1, "
              "header.procedure_ref = 97"},
         {19, "handle_disable_inter_me_link_rtt_req(): link_reference = 1"},
         {4, "RTT measurement disabled for link with link_ref=1"},
         {18, "IEMLI_DISABLE_INTER_ME_LINK_RTT_CFM: procedure_ref=0x61, connection_ref=0xa0"}});
}

TEST_F(IemliRtt, IsConfirmedWhenItWasNotEnabled)
{
    EXPECT_TRUE(offer(CLIENT_A, disable_rtt_req(0x61, 1, 1)));
    expect_sent(CLIENT_A, header(0x1B0E18, 0x61, A_REF));
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(traces_of(4), IsEmpty());
}

TEST_F(IemliRtt, IsNotDisabledOnForeignAndMissingLinksButConfirmed)
{
    iml_link_find_by_ref(2)->rtt_enabled = 1;
    for (const uint32_t link_ref : {2U, 3U}) {
        fake::traces().clear();
        EXPECT_TRUE(offer(CLIENT_A, disable_rtt_req(0x61, 1, link_ref)));
        expect_sent(CLIENT_A, header(0x1B0E18, 0x61, A_REF));
        EXPECT_THAT(calls(), IsEmpty());
        EXPECT_THAT(traces_of(4), ElementsAre("Disable_iml_rtt_req without matching link reference ,link_ref=" +
                                              std::to_string(link_ref)));
    }
}

TEST_F(IemliRtt, DumpsARequestWithoutAHandlerUnderAnUnknownName)
{
    itc_msg *msg = fake::make(CLIENT_A, term_req(0x61, 1));
    iemli_trace_request(iemli_session_find(1), msg);
    itc_free(&msg);
    expect_traces(
        {{19, "unknown_function(): session information: client_conn_ref = 160, server_conn_ref = 1, "
              "last_procedure_ref = 0"},
         {19, "unknown_function(): request information: header.connection_ref = 1, header.procedure_ref = 97"}});
}

} // namespace
