// What the automation agent is told of the links, and when.
#include "manager/links/link_paths.hpp"

#include <cstdlib>

#include "support/daemon.hpp"

using namespace daemon_test;

namespace
{

constexpr uint32_t PATH_CREATE = 0x1A00443;
constexpr uint32_t PATH_DELETE = 0x1A00445;

class LinkPaths : public DaemonTest
{
protected:
    // A link of nobody's in the table.
    static iml_link *add_link(const std::vector<AppLink> &apps)
    {
        iml_link *link = iml_link_alloc(make_link_data({.app_links = apps}));
        iml_link_insert(link);
        return link;
    }

    static void config_update(const std::vector<uint32_t> &services)
    {
        Builder b;
        b.u32(0x1A004C7).n32(0x21).n32(0x55).n32(static_cast<uint32_t>(services.size()));
        for (const uint32_t service : services) {
            b.n32(service);
        }
        fake::push(daemon_test::AASI, b);
        run();
    }
};

} // namespace

TEST_F(LinkPaths, BearThePortsOwnMac)
{
    start();
    start_aasi();
    forget_records();
    add_link({APP_1});
    iml_link_create_path(1);
    const Message create = take_to(daemon_test::AASI, PATH_CREATE);
    EXPECT_EQ(Bytes(create.bytes.begin() + 52, create.bytes.begin() + 64),
              Bytes(Builder().hex("0200000000a1 020000000c01")));
}

TEST_F(LinkPaths, BearZerosForANearEndMacThatIsNotToBeHad)
{
    set_aasi_service_up(true);
    const iml_link *link = add_link({APP_1});
    iml_link_create_path(1);
    iml_link_delete_path(7, link->link_data);
    EXPECT_EQ(fake::count_traced(1, "Could not fetch near end cpm mac, reason: 99"), 2U);
    const Bytes create = take_to(ITC_NO_MBOX, PATH_CREATE).bytes;
    EXPECT_EQ(Bytes(create.begin() + 52, create.begin() + 64), Bytes(Builder().hex("000000000000 020000000c01")));
    const Bytes remove = take_to(ITC_NO_MBOX, PATH_DELETE).bytes;
    EXPECT_EQ(Bytes(remove.begin() + 48, remove.begin() + 60), Bytes(Builder().hex("000000000000 020000000c01")));
}

TEST_F(LinkPaths, AreToldToNobodyWhileTheAgentIsNotThere)
{
    start();
    const iml_link *link = add_link({APP_1});
    iml_link_create_path(1);
    iml_link_update_path(1);
    iml_link_create_path(99);
    iml_link_delete_path(1, link->link_data);
    iml_link_path_status(1, IML_LINK_ENABLED);
    EXPECT_TRUE(fake::sent().empty());
    EXPECT_TRUE(fake::traces().empty());
}

TEST_F(LinkPaths, AreAllSentOnceWhenAConfigUpdateNamesThem)
{
    start();
    start_aasi();
    forget_records();
    add_link({});
    add_link({APP_1});
    add_link({APP_1, APP_2});
    config_update({5, 1, 1});
    for (uint32_t ref = 1; ref <= 3; ++ref) {
        EXPECT_EQ(take_to(daemon_test::AASI, PATH_CREATE).net_word(3), ref);
    }
    config_update({5, 2});
    config_update({});
    EXPECT_TRUE(fake::sent().empty());
}

TEST_F(LinkPaths, AreSentInTheOrderOfTheirLinkRefs)
{
    start();
    start_aasi();
    forget_records();
    iml_link *first = add_link({});
    add_link({APP_1});
    iml_link_remove(first);
    iml_link_free(first);
    add_link({APP_1, APP_2}); // takes the reference 1 again
    config_update({1});
    ASSERT_EQ(fake::sent().size(), 2U);
    EXPECT_EQ(fake::take_sent().bytes.size(), 72U + 2 * 12);
    EXPECT_EQ(fake::take_sent().bytes.size(), 72U + 12);
}
