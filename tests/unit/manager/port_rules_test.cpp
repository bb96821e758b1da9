// The MAC lists and rule records of ports and links, written out, and the access-control set-up of a port.
#include "manager/rules/port_rules.hpp"

#include <gmock/gmock.h>

#include <memory>

#include "support/daemon.hpp"

namespace
{

using daemon_test::APP_1;
using daemon_test::APP_2;
using daemon_test::APP_3;
using daemon_test::Link;
using daemon_test::make_link_data;
using daemon_test::Message;
using fake::Builder;
using fake::Bytes;
using fake::Trace;
using testing::ElementsAre;
using testing::IsEmpty;

const char *const PTP = "01:1B:19:00:00:00";
const char *const LLDP = "01:80:C2:00:00:0E";

// One record as it goes over the wire.
Builder &rule(Builder &b, const char *port, const char *mac, uint32_t vlan, uint32_t match_on_port)
{
    return b.text(port, 64).mac(mac).zeros(2).n32(1).n32(vlan).zeros(12).n32(match_on_port).u8(0).zeros(3);
}

class PortRules : public daemon_test::DaemonTest
{
protected:
    static iml_link *add(const Link &link)
    {
        iml_link *record = iml_link_alloc(make_link_data(link));
        iml_link_insert(record);
        return record;
    }
    static std::vector<std::string> texts(mac_address *macs, uint32_t count)
    {
        std::vector<std::string> found;
        for (uint32_t i = 0; i < count; ++i) {
            char text[18];
            snprintf(text, sizeof text, MAC_FMT, MAC_ARGS(macs[i]));
            found.emplace_back(text);
        }
        free(macs);
        return found;
    }
    static std::vector<std::string> local_macs()
    {
        uint32_t count = 0;
        mac_address *macs = collect_local_port_macs(&count);
        return texts(macs, count);
    }
    static std::vector<std::string> emca_macs(const char *port)
    {
        uint32_t count = 0;
        mac_address *macs = collect_emca_macs_for_port(&count, port);
        return texts(macs, count);
    }
    static Bytes bytes_of(const EmiEndpoint *rules, uint32_t count)
    {
        const auto *first = reinterpret_cast<const uint8_t *>(rules);
        return {first, first + count * 100};
    }
    static Bytes link_rules(const Link &link)
    {
        IemliLinkData *data = make_link_data(link);
        EmiEndpoint *rules = nullptr;
        const uint32_t count = build_link_acl_rules(data, &rules);
        Bytes bytes = bytes_of(rules, count);
        free(rules);
        free(data);
        return bytes;
    }
    static Bytes new_rules(const Link &link, const Link &old_link)
    {
        IemliLinkData *data = make_link_data(link);
        IemliLinkData *old_data = make_link_data(old_link);
        EmiEndpoint *rules = nullptr;
        uint32_t count = 99;
        build_new_app_link_acl_rules(data, old_data, &rules, &count);
        Bytes bytes = bytes_of(rules, count);
        free(rules);
        free(data);
        free(old_data);
        return bytes;
    }
};

// ---- MAC lists ----

TEST_F(PortRules, ListTheMacsOfUnlockedPortsInListOrder)
{
    start();
    set_port("IDLB1", 0, 1);
    EXPECT_THAT(local_macs(), ElementsAre("02:00:00:00:00:A1", "02:00:00:00:00:1A"));
}

TEST_F(PortRules, KeepEqualMacsOfPorts)
{
    ports[1].mac = ports[0].mac;
    start();
    EXPECT_THAT(local_macs(), ElementsAre("02:00:00:00:00:A1", "02:00:00:00:00:A1", "02:00:00:00:00:1A"));
}

TEST_F(PortRules, ListNoMacsWithoutPorts) { EXPECT_THAT(local_macs(), IsEmpty()); }

TEST_F(PortRules, ListTheNearEndMacsOfAPortsLinksOnce)
{
    add({.port = "IDL_A1", .vlan = 1, .app_links = {APP_2, APP_1}});
    add({.port = "IDL_B1", .vlan = 2, .app_links = {APP_3}});
    add({.port = "IDL_A1", .vlan = 3, .app_links = {{APP_1.near_end, APP_3.far_end}, APP_3}});
    EXPECT_THAT(emca_macs("IDL_A1"), ElementsAre(APP_2.near_end, APP_1.near_end, APP_3.near_end));
    EXPECT_THAT(emca_macs("IDL_B2"), IsEmpty());
}

TEST_F(PortRules, PutMac257InThePlaceOfTheFirst)
{
    std::vector<std::string> macs;
    for (int i = 0; i < 258; ++i) {
        char text[18];
        snprintf(text, sizeof text, "02:00:00:00:%02X:%02X", static_cast<unsigned>(i) / 256,
                 static_cast<unsigned>(i) % 256);
        macs.emplace_back(text);
    }
    for (const std::string &mac : macs) {
        add({.app_links = {{mac.c_str(), "02:00:00:00:0B:01"}}});
    }
    const std::vector<std::string> found = emca_macs("IDL_A1");
    ASSERT_EQ(found.size(), 258u);
    EXPECT_EQ(found[0], macs[256]);
    EXPECT_EQ(found[1], macs[257]);
    EXPECT_EQ(found[2], macs[2]);
    EXPECT_EQ(found[255], macs[255]);
    EXPECT_EQ(found[256], "00:00:00:00:00:00") << "grown, but never written";
}

TEST_F(PortRules, ListNothingWhenMemoryIsOut)
{
    add({.app_links = {APP_1, APP_2}});
    uint32_t count = 9;
    fake::fail_allocation(2);
    EXPECT_EQ(collect_emca_macs_for_port(&count, "IDL_A1"), nullptr);
    EXPECT_EQ(count, 0u);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, "Out of memory"}));
    start();
    count = 9;
    fake::fail_allocation(1);
    EXPECT_EQ(collect_local_port_macs(&count), nullptr);
    EXPECT_EQ(count, 0u);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, "Out of memory"}));
}

// ---- Records ----

TEST_F(PortRules, AreThePtpAndLldpAddressesOfAPort)
{
    EmiEndpoint rules[2];
    memset(rules, 0xEE, sizeof rules);
    fill_ptp_lldp_mac_rules("IDL_A1", 10, rules);
    Builder expected;
    rule(expected, "DiPort_A1", PTP, 10, 0);
    rule(expected, "DiPort_A1", LLDP, 10, 0);
    EXPECT_EQ(fake::to_hex(bytes_of(rules, 2)), fake::to_hex(expected));
}

TEST_F(PortRules, AreTheLldpAddressOfAPort)
{
    EmiEndpoint one;
    memset(&one, 0xEE, sizeof one);
    fill_lldp_mac_rule("TN_B", 4094, &one);
    Builder expected;
    rule(expected, "TNB", LLDP, 4094, 0);
    EXPECT_EQ(fake::to_hex(bytes_of(&one, 1)), fake::to_hex(expected));
}

TEST_F(PortRules, HoldTwoRecordsPerAppLinkAndThreeMoreOnAnIdlPort)
{
    start();
    Builder expected;
    rule(expected, "DiPort_A1", "02:00:00:00:0B:01", 100, 1);
    rule(expected, "", "02:00:00:00:0A:01", 100, 0);
    rule(expected, "DiPort_A1", "02:00:00:00:0B:02", 100, 1);
    rule(expected, "", "02:00:00:00:0A:02", 100, 0);
    rule(expected, "DiPort_A1", "02:00:00:00:0C:01", 100, 1);
    rule(expected, "DiPort_A1", PTP, 100, 0);
    rule(expected, "DiPort_A1", LLDP, 100, 0);
    EXPECT_EQ(fake::to_hex(link_rules({.app_links = {APP_1, APP_2}})), fake::to_hex(expected));
}

TEST_F(PortRules, HoldThePortsOwnMacOnATnPort)
{
    start();
    Builder expected;
    rule(expected, "TNA", "02:00:00:00:0C:01", 200, 1);
    rule(expected, "", "02:00:00:00:00:1A", 200, 0);
    rule(expected, "TNA", PTP, 200, 0);
    rule(expected, "TNA", LLDP, 200, 0);
    EXPECT_EQ(fake::to_hex(link_rules({.port = "TN_A", .vlan = 200, .app_links = {}})), fake::to_hex(expected));
}

TEST_F(PortRules, AreThreeForALinkWithoutAppLinksOnAnIdlPort)
{
    start();
    EXPECT_EQ(link_rules({.app_links = {}}).size(), 300u);
}

TEST_F(PortRules, AreNoneForAnUnknownPort)
{
    start();
    EXPECT_THAT(link_rules({.port = "IDL_B2"}), IsEmpty());
    EXPECT_TRUE(fake::traced(1, "Failed to get port data"));
}

TEST_F(PortRules, AreNoneWhenMemoryIsOut)
{
    start();
    IemliLinkData *data = make_link_data({});
    EmiEndpoint *rules = nullptr;
    fake::fail_allocation(1);
    EXPECT_EQ(build_link_acl_rules(data, &rules), 0u);
    EXPECT_EQ(rules, nullptr);
    EXPECT_TRUE(fake::traced(1, "Out of memory"));
    free(data);
}

TEST_F(PortRules, AreThoseOfTheAppLinksThatAreNew)
{
    Builder expected;
    rule(expected, "DiPort_A1", "02:00:00:00:0B:01", 100, 1);
    rule(expected, "", "02:00:00:00:0A:01", 100, 0);
    rule(expected, "DiPort_A1", "02:00:00:00:0B:03", 100, 1);
    rule(expected, "", "02:00:00:00:0A:03", 100, 0);
    EXPECT_EQ(fake::to_hex(new_rules({.app_links = {APP_1, APP_2, APP_3}}, {.app_links = {APP_2}})),
              fake::to_hex(expected));
}

TEST_F(PortRules, TakeAnAppLinkAsNewWhenOneOfItsMacsDiffers)
{
    EXPECT_EQ(new_rules({.app_links = {{APP_1.near_end, APP_2.far_end}}}, {.app_links = {APP_1, APP_2}}).size(), 200u);
    EXPECT_THAT(new_rules({.app_links = {APP_2, APP_1}}, {.app_links = {APP_1, APP_2}}), IsEmpty());
}

// 60 app links, of which every third is old, and 40 more old ones.
TEST_F(PortRules, AreThoseOfTheNewAmongManyAppLinksWithAndWithoutMemoryToSortThem)
{
    std::vector<std::string> macs;
    for (unsigned i = 0; i < 200; ++i) {
        char text[18];
        snprintf(text, sizeof text, "02:00:00:00:%02X:%02X", i % 2 == 0 ? 0x0A : 0x0B, (i / 2 * 37) % 100);
        macs.emplace_back(text);
    }
    const auto app = [&macs](size_t i) { return daemon_test::AppLink{macs[2 * i].c_str(), macs[2 * i + 1].c_str()}; };
    Link link;
    Link old_link;
    Builder expected;
    for (size_t i = 0; i < 60; ++i) {
        link.app_links.push_back(app(i));
        if (i % 3 == 0) {
            old_link.app_links.insert(old_link.app_links.begin(), app(i));
            continue;
        }
        rule(expected, "DiPort_A1", app(i).far_end, 100, 1);
        rule(expected, "", app(i).near_end, 100, 0);
    }
    for (size_t i = 60; i < 100; ++i) {
        old_link.app_links.push_back(app(i));
    }
    EXPECT_EQ(fake::to_hex(new_rules(link, old_link)), fake::to_hex(expected));
    EXPECT_TRUE(fake::traces().empty());
    IemliLinkData *data = make_link_data(link);
    IemliLinkData *old_data = make_link_data(old_link);
    EmiEndpoint *rules = nullptr;
    uint32_t count = 0;
    fake::fail_allocation(1);
    build_new_app_link_acl_rules(data, old_data, &rules, &count);
    EXPECT_EQ(fake::to_hex(bytes_of(rules, count)), fake::to_hex(expected));
    free(rules);
    free(data);
    free(old_data);
}

TEST_F(PortRules, AreNoneOfTheNewAppLinksWhenMemoryIsOut)
{
    IemliLinkData *data = make_link_data({.app_links = {APP_1, APP_2}});
    IemliLinkData *old_data = make_link_data({.app_links = {}});
    EmiEndpoint *rules = nullptr;
    uint32_t count = 99;
    fake::fail_allocation(2);
    build_new_app_link_acl_rules(data, old_data, &rules, &count);
    EXPECT_EQ(rules, nullptr);
    EXPECT_EQ(count, 0u);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, "Memory realloc failed"}));
    free(data);
    free(old_data);
}

// ---- FMI ----

constexpr uint32_t SET_DEFAULT_ACTION = 0x1B0F58;
constexpr uint32_t APPEND_STATIC = 0x1B0F5B;
constexpr uint32_t REMOVE_STATIC = 0x1B0F5E;
constexpr uint32_t APPEND_DYNAMIC = 0x1B0F61;
constexpr uint32_t REMOVE_DYNAMIC = 0x1B0F64;

class PortAcl : public PortRules
{
protected:
    // As start(), but with an FMI client that knows of no port yet: the unlocked ports were set up at start.
    void start_fresh()
    {
        start();
        forget_fmi();
    }
    static void forget_fmi()
    {
        for (const char *port : {"DiPort_A1", "DiPort_B1", "TNA"}) {
            fmi_remove_acl_from_port(port);
        }
        forget_records();
    }
    // What was asked of FMI, one line each.
    static std::vector<std::string> asked()
    {
        std::vector<std::string> lines;
        for (const Message &m : messages_to(daemon_test::FMI)) {
            switch (m.msgno()) {
            case SET_DEFAULT_ACTION:
                lines.push_back("default " + m.text(16) + " " + std::to_string(m.net_word(3)));
                break;
            case APPEND_STATIC:
                lines.push_back("static " + m.text(16) + " " + std::to_string(m.net_word(3)));
                break;
            case REMOVE_STATIC:
                lines.push_back("remove static " + m.text(16));
                break;
            case APPEND_DYNAMIC:
                lines.push_back("rule " + m.text(12) + " " + ether_type(m) + " x" + std::to_string(m.net_word(22) - 1));
                break;
            case REMOVE_DYNAMIC:
                lines.push_back("remove rule " + m.text(16));
                break;
            default:
                lines.push_back("?");
                break;
            }
        }
        return lines;
    }
    // The ethertype stands in the last entry.
    static std::string ether_type(const Message &m)
    {
        const size_t last = 92 + 36 * (m.net_word(22) - 1) + 32;
        return fake::to_hex({m.bytes[last], m.bytes[last + 1]});
    }
};

TEST_F(PortAcl, IsSetUpInItsOrder)
{
    start_fresh();
    add({.app_links = {APP_1, APP_2}});
    add({.port = "TN_A", .vlan = 7, .app_links = {APP_3}});
    setup_port_acl("IDLA1");
    EXPECT_THAT(asked(), ElementsAre("default DiPort_A1 0", "static DiPort_A1 0", "rule DiPort_A1 ebc0 x2",
                                     "rule DiPort_A1 88f7 x2", "rule DiPort_A1 88cc x1", "rule DiPort_A1 aefe x3",
                                     "rule DiPort_B1 aefe x3", "rule TNA aefe x3"));
}

TEST_F(PortAcl, OfATnPortHasActionAndStaticRule1)
{
    start_fresh();
    set_port("IDLB1", 0, 1);
    forget_fmi();
    setup_port_acl("TNA");
    EXPECT_THAT(asked(), ElementsAre("default TNA 1", "static TNA 1", "rule TNA 88f7 x2", "rule TNA 88cc x1",
                                     "rule DiPort_A1 aefe x2", "rule TNA aefe x2"))
        << "without links there is no rule for them; locked ports get no supervision rule";
}

TEST_F(PortAcl, WithoutAnyUnlockedPortHasNoSupervisionRules)
{
    start_fresh();
    for (const char *port : {"IDLA1", "IDLB1", "TNA"}) {
        set_port(port, 0, 1);
    }
    forget_fmi();
    setup_port_acl("IDLA1");
    EXPECT_THAT(asked(), ElementsAre("default DiPort_A1 0", "static DiPort_A1 0", "rule DiPort_A1 88f7 x2",
                                     "rule DiPort_A1 88cc x1"));
}

TEST_F(PortAcl, HasNoSupervisionRulesWhenThereIsNoMemoryForTheirMacs)
{
    start_fresh();
    fake::fail_allocation(1);
    setup_port_acl("IDLA1");
    EXPECT_TRUE(fake::traced(1, "Out of memory"));
    EXPECT_THAT(asked(), ElementsAre("default DiPort_A1 0", "static DiPort_A1 0", "rule DiPort_A1 88f7 x2",
                                     "rule DiPort_A1 88cc x1"));
}

TEST_F(PortAcl, FallsBackAtTheFirstStepThatIsRefused)
{
    start_fresh();
    fmi_refused.insert(SET_DEFAULT_ACTION);
    setup_port_acl("IDLA1");
    EXPECT_THAT(asked(), ElementsAre("default DiPort_A1 0", "default DiPort_A1 1"));

    fmi_refused = {APPEND_STATIC};
    forget_records();
    setup_port_acl("IDLA1");
    EXPECT_THAT(asked(), ElementsAre("default DiPort_A1 0", "static DiPort_A1 0", "remove rule DiPort_A1",
                                     "remove rule DiPort_A1", "default DiPort_A1 1"))
        << "rules 0 stand for the PTP and LLDP rules that were never set";

    fmi_refused = {APPEND_DYNAMIC};
    forget_records();
    setup_port_acl("IDLA1");
    EXPECT_THAT(asked(), ElementsAre("default DiPort_A1 0", "static DiPort_A1 0", "rule DiPort_A1 88f7 x2",
                                     "remove static DiPort_A1", "remove rule DiPort_A1", "default DiPort_A1 1"));
}

TEST_F(PortAcl, FallsBackOnAPortThatRefusesItsSupervisionRuleAndGoesOn)
{
    start_fresh();
    fmi_refusals[APPEND_DYNAMIC] = 1;
    mac_address mac = daemon_test::to_mac("02:00:00:00:00:01");
    set_supervision_acl_rule_on_ports(&mac, 1);
    EXPECT_THAT(asked(), ElementsAre("rule DiPort_A1 aefe x1", "default DiPort_A1 1", "rule DiPort_B1 aefe x1",
                                     "rule TNA aefe x1"));
}

TEST_F(PortAcl, HasTheEmcaRuleOfItsLinksUnderTheFmiName)
{
    start_fresh();
    add({.app_links = {APP_1, APP_2}});
    set_emca_acl_rule_on_port("IDL_A1");
    EXPECT_THAT(asked(), ElementsAre("rule DiPort_A1 ebc0 x2"));
    EXPECT_THAT(notices(), IsEmpty());
}

TEST_F(PortAcl, TracesAnEmcaRuleThatIsRefused)
{
    start_fresh();
    add({.app_links = {APP_1, APP_2}});
    fmi_refused.insert(APPEND_DYNAMIC);
    set_emca_acl_rule_on_port("IDL_A1");
    EXPECT_TRUE(fake::traced(4, "WARNING: Set emca acl rule on port (DiPort_A1) for 2 new emcas failed."));
}

} // namespace
