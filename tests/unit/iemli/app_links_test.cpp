// The checks on app links, held against their definition written down as plainly as it can be: every app link against
// every other. Random requests over few MACs, so that every fault is met often; few app links and many, with and
// without memory for sorting them.
#include <gmock/gmock.h>

#include <map>
#include <random>

#include "base/app_link_index.hpp"
#include "iemli/iemli_checks.hpp"
#include "neighbours.hpp"

namespace
{

using Apps = std::vector<IemliAppLink>;

constexpr uint32_t ACCEPTED = IEMLI_NO_REJECT;
constexpr uint32_t HUNDRED_THOUSAND = 100000;

// The MAC number n, spread over all six bytes.
mac_address mac(uint32_t n)
{
    return {{static_cast<uint8_t>(n >> 16), static_cast<uint8_t>(n >> 20), static_cast<uint8_t>(n),
             static_cast<uint8_t>(n >> 8), 0, static_cast<uint8_t>(n >> 2)}};
}

bool equal(const mac_address &a, const mac_address &b) { return memcmp(&a, &b, 6) == 0; }
bool equal(const IemliAppLink &a, const IemliAppLink &b) { return memcmp(&a, &b, 12) == 0; }

// Link data in a block of exactly its size.
struct LinkBlock {
    Bytes bytes;
    LinkBlock(const mac_address &cpm, const char *port, uint16_t vlan, const Apps &apps)
        : bytes(32 + 12 * std::max<size_t>(apps.size(), 1))
    {
        data()->nearEndMpId = 5;
        data()->farEndCpmMac = cpm;
        const size_t name = strnlen(port, 16); // the optimised build warns of a bounded string copy into the block here
        std::copy_n(port, name, data()->imlPortName);
        data()->vlanId = vlan;
        data()->numberOfAppLinks = static_cast<uint32_t>(apps.size());
        std::copy(apps.begin(), apps.end(), iemli_app_links(data()));
    }
    IemliLinkData *data() { return reinterpret_cast<IemliLinkData *>(bytes.data()); }
};

Apps apps_of(const IemliLinkData *link)
{
    return {iemli_app_links(link), iemli_app_links(link) + link->numberOfAppLinks};
}

// ---- The definition ----

uint32_t faults_of_app_links(const mac_address &cpm, const Apps &apps)
{
    for (size_t i = 0; i < apps.size(); ++i) {
        if (equal(apps[i].farEndAppMac, cpm) || equal(apps[i].nearEndAppMac, cpm)) {
            return 12;
        }
        if (equal(apps[i].nearEndAppMac, apps[i].farEndAppMac)) {
            return 13;
        }
        for (size_t j = i + 1; j < apps.size(); ++j) {
            if (equal(apps[i], apps[j])) {
                return 15;
            }
        }
    }
    return ACCEPTED;
}

bool far_end_app_in_both(const Apps &a, const Apps &b)
{
    for (const IemliAppLink &x : a) {
        for (const IemliAppLink &y : b) {
            if (equal(x.farEndAppMac, y.farEndAppMac)) {
                return true;
            }
        }
    }
    return false;
}

uint32_t create_by_definition(const IemliLinkData *link)
{
    for (const iml_link *other = iml_link_first(); other != nullptr; other = other->next) {
        const IemliLinkData *existing = other->link_data;
        const bool same_port = strcmp(existing->imlPortName, link->imlPortName) == 0;
        if (existing->vlanId != link->vlanId) {
            continue;
        }
        if (same_port && equal(existing->farEndCpmMac, link->farEndCpmMac)) {
            return 6;
        }
        if (!same_port && far_end_app_in_both(apps_of(link), apps_of(existing))) {
            return 14;
        }
        if (!same_port && equal(existing->farEndCpmMac, link->farEndCpmMac)) {
            return 99;
        }
    }
    const uint32_t reason = faults_of_app_links(link->farEndCpmMac, apps_of(link));
    return reason == ACCEPTED && strcmp(link->imlPortName, "IDL_X1") == 0 ? 4 : reason;
}

bool all_occur_in(const Apps &stored, const Apps &apps)
{
    return std::all_of(stored.begin(), stored.end(), [&apps](const IemliAppLink &app) {
        return std::any_of(apps.begin(), apps.end(), [&app](const IemliAppLink &other) { return equal(app, other); });
    });
}

uint32_t update_by_definition(const iml_link *link, const Apps &apps)
{
    const Apps stored = apps_of(link->link_data);
    if (stored.size() == apps.size() && all_occur_in(stored, apps)) {
        return 8;
    }
    const uint32_t reason = faults_of_app_links(link->link_data->farEndCpmMac, apps);
    if (reason != ACCEPTED) {
        return reason;
    }
    for (const iml_link *other = iml_link_first(); other != nullptr; other = other->next) {
        if (other->link_ref != link->link_ref && other->link_data->vlanId == link->link_data->vlanId &&
            strcmp(other->link_data->imlPortName, link->link_data->imlPortName) != 0 &&
            far_end_app_in_both(apps, apps_of(other->link_data))) {
            return 14;
        }
    }
    return ACCEPTED;
}

// ---- Random requests ----

class IemliAppLinks : public IemliTest
{
protected:
    std::mt19937 random{20260};

    uint32_t pick(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(random); }

    // Few MACs bring repetitions, many let the later checks be reached.
    Apps some_apps(uint32_t max_count)
    {
        const uint32_t macs = pick(3) == 0 ? 12 : 60000;
        Apps apps(pick(max_count + 1));
        for (IemliAppLink &app : apps) {
            app = {mac(2 + 2 * pick(macs)), mac(3 + 2 * pick(macs))};
        }
        spoil(&apps);
        return apps;
    }

    // Now and then: a repetition, the far end as an app, an app link to itself.
    void spoil(Apps *apps)
    {
        const auto size = static_cast<uint32_t>(apps->size());
        if (size == 0) {
            return;
        }
        if (pick(4) == 0) {
            (*apps)[pick(size)] = (*apps)[pick(size)];
        }
        if (pick(6) == 0) {
            (pick(2) == 0 ? (*apps)[pick(size)].nearEndAppMac : (*apps)[pick(size)].farEndAppMac) = mac(pick(2));
        }
        if (pick(6) == 0) {
            IemliAppLink &app = (*apps)[pick(size)];
            app.farEndAppMac = app.nearEndAppMac;
        }
    }

    // Shares a far end with an app link of another link, now and then.
    void borrow_far_end(Apps *apps)
    {
        const iml_link *link = iml_link_first();
        for (uint32_t skip = pick(4); link != nullptr && skip > 0; --skip) {
            link = link->next;
        }
        if (link != nullptr && link->link_data->numberOfAppLinks > 0 && !apps->empty() && pick(3) == 0) {
            (*apps)[pick(static_cast<uint32_t>(apps->size()))].farEndAppMac =
                iemli_app_links(link->link_data)[pick(link->link_data->numberOfAppLinks)].farEndAppMac;
        }
    }

    LinkBlock some_link(uint32_t max_count)
    {
        const char *ports[] = {"IDL_A1", "IDL_B1", "TN_A", "IDL_X1"};
        Apps apps = some_apps(max_count);
        borrow_far_end(&apps);
        return {mac(pick(4) == 0 ? pick(2) : 200001 + pick(1000)), ports[pick(4)], static_cast<uint16_t>(1 + pick(2)),
                apps};
    }

    void some_table(uint32_t max_count)
    {
        iml_link_table_clear();
        for (uint32_t links = pick(5); links > 0; --links) {
            LinkBlock link = some_link(max_count);
            iml_link *record = iml_link_alloc(iml_link_data_copy(link.data(), link.data()->numberOfAppLinks));
            record->connection_ref = 1;
            iml_link_insert(record);
        }
    }

    // What the new app links of a link may be: its own in another order, with or without a change, or others.
    Apps some_new_apps(const iml_link *link, uint32_t max_count)
    {
        if (pick(3) == 0) {
            Apps apps = some_apps(max_count);
            borrow_far_end(&apps);
            return apps;
        }
        Apps apps = apps_of(link->link_data);
        std::shuffle(apps.begin(), apps.end(), random);
        if (pick(2) == 0) {
            spoil(&apps);
        }
        return apps;
    }

    // Sorting is the first thing a check needs memory for, and the only one that may fail without a word.
    static void forget_memory(bool scarce, uint32_t count) { fake::fail_allocation(scarce && count > 16 ? 1 : 0); }
};

TEST_F(IemliAppLinks, OfACreateAreCheckedByTheDefinition)
{
    std::map<uint32_t, int> seen;
    for (uint32_t round = 0; round < 6000 && !HasFailure(); ++round) {
        const uint32_t max_count = round % 3 == 0 ? 4 : 60;
        some_table(max_count);
        LinkBlock link = some_link(max_count);
        const uint32_t expected = create_by_definition(link.data());
        for (const bool scarce : {false, true}) {
            forget_memory(scarce, link.data()->numberOfAppLinks);
            EXPECT_EQ(iemli_check_create(link.data()), expected) << "round " << round;
        }
        ++seen[expected];
    }
    for (const uint32_t reason : {4U, 6U, 12U, 13U, 14U, 15U, 99U, ACCEPTED}) {
        EXPECT_GT(seen[reason], 20) << "reason " << reason;
    }
}

TEST_F(IemliAppLinks, OfAnUpdateAreCheckedByTheDefinition)
{
    std::map<uint32_t, int> seen;
    for (uint32_t round = 0; round < 6000 && !HasFailure(); ++round) {
        const uint32_t max_count = round % 3 == 0 ? 4 : 60;
        some_table(max_count);
        const iml_link *link = iml_link_first();
        if (link == nullptr) {
            continue;
        }
        Apps apps = some_new_apps(link, max_count);
        apps.reserve(1); // a request has an app link slot even without an app link
        const uint32_t expected = update_by_definition(link, apps);
        for (const bool scarce : {false, true}) {
            forget_memory(scarce, static_cast<uint32_t>(apps.size()));
            EXPECT_EQ(iemli_check_update(link, static_cast<uint32_t>(apps.size()), apps.data()), expected)
                << "round " << round;
        }
        ++seen[expected];
    }
    for (const uint32_t reason : {8U, 12U, 13U, 14U, 15U, ACCEPTED}) {
        EXPECT_GT(seen[reason], 20) << "reason " << reason;
    }
}

TEST_F(IemliAppLinks, AreFoundByBothMacsOrByTheFarEndAlone)
{
    for (const bool scarce : {false, true}) {
        Apps apps;
        for (uint32_t i = 0; i < 40; ++i) {
            apps.push_back({mac(1000 + i), mac(7 * i)});
        }
        forget_memory(scarce, 40);
        app_link_index index = app_link_index_build(apps.data(), 40);
        EXPECT_EQ(index.entries == nullptr, scarce);
        for (uint32_t i = 0; i < 40; ++i) {
            EXPECT_TRUE(app_link_index_has(index, apps[i]));
            EXPECT_FALSE(app_link_index_has(index, {apps[i].farEndAppMac, apps[i].nearEndAppMac}));
            EXPECT_FALSE(app_link_index_has(index, {apps[i].nearEndAppMac, apps[(i + 1) % 40].farEndAppMac}));
            EXPECT_TRUE(app_link_index_has_far_end(index, apps[i].farEndAppMac));
            EXPECT_FALSE(app_link_index_has_far_end(index, apps[i].nearEndAppMac));
        }
        EXPECT_FALSE(app_link_index_has_far_end(index, {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}}));
        EXPECT_FALSE(app_link_index_repeats(index, 40));
        app_link_index_free(&index);
    }
}

TEST_F(IemliAppLinks, RepeatWhenTheFirstOfTwoEqualsStandsBeforeTheLimit)
{
    for (const bool scarce : {false, true}) {
        Apps apps;
        for (uint32_t i = 0; i < 40; ++i) {
            apps.push_back({mac(1000 + i), mac(i)});
        }
        apps[39] = apps[20];
        forget_memory(scarce, 40);
        app_link_index index = app_link_index_build(apps.data(), 40);
        EXPECT_FALSE(app_link_index_repeats(index, 0));
        EXPECT_FALSE(app_link_index_repeats(index, 20));
        EXPECT_TRUE(app_link_index_repeats(index, 21));
        EXPECT_TRUE(app_link_index_repeats(index, 40));
        app_link_index_free(&index);
    }
}

// Held against each other one by one, they would take minutes.
TEST_F(IemliAppLinks, MayBeAHundredThousand)
{
    open_both();
    fake::set_trace_mask(0);
    Apps apps;
    for (uint32_t i = 0; i < HUNDRED_THOUSAND; ++i) {
        apps.push_back({mac(2 * i + 2), mac(2 * i + 3)});
    }
    LinkBlock on_other_port(mac(200002), "IDL_B1", 100, {apps.rbegin(), apps.rend()});
    iml_link_insert(iml_link_alloc(iml_link_data_copy(on_other_port.data(), HUNDRED_THOUSAND)));
    LinkBlock wanted(mac(200003), "IDL_A1", 100, apps);
    EXPECT_EQ(iemli_check_create(wanted.data()), 14U);
    for (uint32_t i = 0; i < HUNDRED_THOUSAND; ++i) {
        iemli_app_links(wanted.data())[i].farEndAppMac = mac(0x100000 + 2 * i + 3);
    }
    EXPECT_EQ(iemli_check_create(wanted.data()), ACCEPTED);
    iml_link *link = iml_link_alloc(iml_link_data_copy(wanted.data(), HUNDRED_THOUSAND));
    iml_link_insert(link);
    Apps updated = apps_of(wanted.data());
    std::shuffle(updated.begin(), updated.end(), random);
    EXPECT_EQ(iemli_check_update(link, HUNDRED_THOUSAND, updated.data()), 8U);
    updated[HUNDRED_THOUSAND / 2] = {mac(4), mac(0x100001)};
    EXPECT_EQ(iemli_check_update(link, HUNDRED_THOUSAND, updated.data()), ACCEPTED);
    updated[HUNDRED_THOUSAND - 1] = updated[HUNDRED_THOUSAND - 2];
    EXPECT_EQ(iemli_check_update(link, HUNDRED_THOUSAND, updated.data()), 15U);
}

} // namespace
