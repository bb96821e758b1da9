// What the table keeps as links come and go, held against a walk over all of its links, over random tables.
#include <gmock/gmock.h>

#include <algorithm>
#include <random>
#include <set>

#include "manager/ports/port_mapping.hpp"
#include "manager/rules/port_rules.hpp"
#include "manager/table/link_table.hpp"
#include "support/daemon.hpp"

namespace
{

const char *const PORTS[] = {"IDL_A1", "IDL_B1", "TN_A"};
constexpr size_t PORT_COUNT = std::size(PORTS);

using Refs = std::vector<uint32_t>;
using Macs = std::vector<uint64_t>;

// A table of one kind: how many MACs there are to choose from, and how many app links a link has.
struct Kind {
    const char *name;
    uint32_t near_ends; // 0: each one is new
    uint32_t most_app_links;
    uint32_t most_links;
};

mac_address mac_of(uint64_t bits)
{
    mac_address mac = {};
    for (int i = 5; i >= 0; --i, bits >>= 8) {
        mac.byte[i] = static_cast<uint8_t>(bits);
    }
    return mac;
}

class KeptLists : public daemon_test::DaemonTest
{
protected:
    std::mt19937 random{7}; // NOLINT: the same tables every time
    uint32_t macs_made = 0;
    unsigned missing = 0; // the allocation of the next step that fails; 0: none

    uint32_t below(uint32_t n) { return static_cast<uint32_t>(random() % n); }

    IemliAppLink random_app_link(const Kind &kind)
    {
        const uint64_t near_end = kind.near_ends == 0 ? 0x020000000000 + macs_made++ : 1 + below(kind.near_ends);
        return {mac_of(near_end), mac_of(0x060000000000 + below(12))};
    }
    IemliLinkData *random_data(const Kind &kind, uint32_t app_links)
    {
        auto *data =
            static_cast<IemliLinkData *>(calloc(1, static_cast<size_t>(iemli_link_data_size(std::max(app_links, 1u)))));
        data->numberOfAppLinks = app_links;
        data->vlanId = static_cast<uint16_t>(1 + below(3));
        data->nearEndMpId = static_cast<uint8_t>(1 + below(3));
        data->farEndCpmMac = mac_of(0x0A0000000000 + below(4));
        strncpy(data->imlPortName, PORTS[below(PORT_COUNT)], sizeof data->imlPortName - 1);
        for (uint32_t i = 0; i < app_links; ++i) {
            iemli_app_links(data)[i] = random_app_link(kind);
        }
        return data;
    }

    // ---- Steps. Any of them may find that there is no memory ----

    void create(const Kind &kind)
    {
        uint32_t lowest = 1;
        while (iml_link_look_up(lowest) != nullptr) {
            ++lowest;
        }
        IemliLinkData *data = random_data(kind, below(kind.most_app_links + 1));
        fake::fail_allocation(missing);
        iml_link *link = iml_link_alloc(data);
        if (link == nullptr) {
            free(data);
            return;
        }
        iml_link_insert(link);
        EXPECT_EQ(link->link_ref, lowest);
    }
    iml_link *random_link()
    {
        iml_link *link = iml_link_first();
        for (uint32_t i = iml_link_count() != 0 ? below(iml_link_count()) : 0; i > 0; --i) {
            link = link->next;
        }
        return link;
    }
    void remove()
    {
        if (iml_link *link = random_link()) {
            fake::fail_allocation(missing);
            iml_link_remove(link);
            iml_link_free(link);
        }
    }
    void update(const Kind &kind)
    {
        iml_link *link = random_link();
        if (link == nullptr) {
            return;
        }
        IemliLinkData *data = random_data(kind, below(kind.most_app_links + 1));
        app_link_room room = {};
        fake::fail_allocation(missing);
        if (iml_link_make_room(link, data->numberOfAppLinks, &room)) {
            if (below(10) != 0) {
                iml_link_store_app_links(link, data, &room);
            } else {
                app_link_room_free(&room); // the update was given up
            }
        }
        free(data);
    }
    void step(const Kind &kind)
    {
        const uint32_t what = below(100);
        if (iml_link_count() < kind.most_links && what < 55) {
            create(kind);
        } else if (what < 80) {
            remove();
        } else {
            update(kind);
        }
    }

    // ---- The walks ----

    template <class Wanted> static Refs walk(Wanted wanted)
    {
        Refs found;
        for (const iml_link *link = iml_link_first(); link != nullptr; link = link->next) {
            if (wanted(*link->link_data)) {
                found.push_back(link->link_ref);
            }
        }
        return found;
    }
    template <class First, class Next> static Refs kept(First first, Next next)
    {
        Refs found;
        for (const iml_link *link = first(); link != nullptr; link = next(link)) {
            found.push_back(link->link_ref);
        }
        return found;
    }
    static bool is_on(const IemliLinkData &data, const char *port) { return strcmp(data.imlPortName, port) == 0; }

    // The rule of the list, said as plainly as it can be: the place of the next MAC, and how far a duplicate is looked
    // for, are the low 8 bits of the count.
    static Macs walked_macs(const char *port)
    {
        Macs list;
        for (const iml_link *link = iml_link_first(); link != nullptr; link = link->next) {
            for (uint32_t i = 0; is_on(*link->link_data, port) && i < link->link_data->numberOfAppLinks; ++i) {
                const uint64_t mac = mac_bits(iemli_app_links(link->link_data)[i].nearEndAppMac);
                const auto looked_at = list.begin() + static_cast<ptrdiff_t>(list.size() & 0xFF);
                if (std::find(list.begin(), looked_at, mac) == looked_at) {
                    const size_t place = list.size() & 0xFF;
                    list.push_back(0);
                    list[place] = mac;
                }
            }
        }
        return list;
    }
    static Macs kept_macs(const char *port)
    {
        uint32_t count = 0;
        mac_address *macs = collect_emca_macs_for_port(&count, port);
        Macs list;
        for (uint32_t i = 0; i < count; ++i) {
            list.push_back(mac_bits(macs[i]));
        }
        free(macs);
        return list;
    }

    void expect_as_walked()
    {
        const uint16_t vlan = static_cast<uint16_t>(1 + below(4));
        const mac_address far_end = mac_of(0x0A0000000000 + below(5));
        const mac_address far_app = mac_of(0x060000000000 + below(13));
        ASSERT_EQ(kept([&] { return iml_link_first_to_far_end(vlan, far_end); }, iml_link_next_to_far_end),
                  walk([&](const IemliLinkData &data) {
                      return data.vlanId == vlan && mac_equal(data.farEndCpmMac, far_end);
                  }));
        for (const char *port : PORTS) {
            const port_names &names = port_of_iemli_name(port);
            ASSERT_EQ(kept([&] { return iml_link_first_on_port(names); }, iml_link_next_on_port),
                      walk([&](const IemliLinkData &data) { return is_on(data, port); }));
            ASSERT_EQ(kept([&] { return iml_link_first_on_port_vlan(names, vlan); }, iml_link_next_on_port_vlan),
                      walk([&](const IemliLinkData &data) { return is_on(data, port) && data.vlanId == vlan; }));
            const Refs elsewhere = walk([&](const IemliLinkData &data) {
                const IemliAppLink *apps = iemli_app_links(&data);
                return data.vlanId == vlan && !is_on(data, port) &&
                       std::any_of(apps, apps + data.numberOfAppLinks,
                                   [&](const IemliAppLink &app) { return mac_equal(app.farEndAppMac, far_app); });
            });
            const iml_link *first = iml_link_with_far_end_app_elsewhere(vlan, far_app, names);
            ASSERT_EQ(first != nullptr ? first->link_ref : 0, elsewhere.empty() ? 0 : elsewhere.front());
            ASSERT_EQ(kept_macs(port), walked_macs(port)) << port;
        }
    }
};

constexpr Kind KINDS[] = {
    {"few MACs, again and again", 3, 4, 60},
    {"as many as the index tells apart, and two more", 258, 12, 150},
    {"one fewer than it tells apart", 255, 12, 150},
    {"hundreds that occur twice now and then", 2000, 12, 120},
    {"every MAC once", 0, 12, 150},
};

TEST_F(KeptLists, AreWhatAWalkFindsInRandomTables)
{
    for (const Kind &kind : KINDS) {
        SCOPED_TRACE(kind.name);
        size_t longest = 0;
        for (int n = 0; n < 600; ++n) {
            step(kind);
            if (n % 3 == 0) {
                ASSERT_NO_FATAL_FAILURE(expect_as_walked()) << "step " << n;
            }
            longest = std::max(longest, kept_macs(PORTS[0]).size());
        }
        if (kind.near_ends == 0) {
            EXPECT_GT(longest, 256u) << "the table is large enough for the odd count";
        }
        iml_link_table_clear();
        expect_as_walked();
    }
}

// A step that has no memory leaves the table as it was, and one that loses the MACs of a port has them collected.
TEST_F(KeptLists, AreWhatAWalkFindsWhenMemoryRunsOutNowAndThen)
{
    for (const Kind &kind : KINDS) {
        SCOPED_TRACE(kind.name);
        unsigned failed = 0;
        for (int n = 0; n < 400; ++n) {
            const unsigned before = fake::failed_allocations();
            missing = below(2) == 0 ? 1 + below(4) : 0;
            step(kind);
            fake::fail_allocation(0);
            failed += fake::failed_allocations() - before;
            ASSERT_NO_FATAL_FAILURE(expect_as_walked()) << "step " << n;
        }
        EXPECT_GT(failed, 20u);
        iml_link_table_clear();
    }
}

// What goes out when a port is locked and unlocked, among creates, updates and deletes.
TEST_F(KeptLists, AreWhatTheFlowManagerIsToldWhenAPortIsUnlocked)
{
    constexpr uint32_t APPEND_DYNAMIC = 0x1B0F61;
    start();
    for (const Kind &kind : KINDS) {
        SCOPED_TRACE(kind.name);
        for (int n = 0; n < 40; ++n) {
            for (int steps = 0; steps < 10; ++steps) {
                step(kind);
            }
            set_port("IDLA1", 0, 1);
            forget_records();
            set_port("IDLA1", 1, 1);
            const Macs walked = walked_macs("IDL_A1");
            std::vector<Macs> told;
            for (const daemon_test::Message &m : messages_to(daemon_test::FMI)) {
                const uint32_t macs = m.msgno() == APPEND_DYNAMIC ? m.net_word(22) - 1 : 0;
                const size_t last = 92 + 36 * static_cast<size_t>(macs) + 32;
                if (macs != 0 && m.bytes[last] == 0xEB && m.bytes[last + 1] == 0xC0) {
                    told.emplace_back();
                    for (uint32_t i = 0; i < macs; ++i) {
                        mac_address mac = {};
                        memcpy(mac.byte, &m.bytes[92 + 36 * static_cast<size_t>(i) + 16], sizeof mac.byte);
                        told.back().push_back(mac_bits(mac));
                    }
                }
            }
            ASSERT_EQ(told, walked.empty() ? std::vector<Macs>{} : std::vector<Macs>{walked}) << "round " << n;
        }
        iml_link_table_clear();
    }
}

} // namespace
