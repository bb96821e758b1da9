// What port management and the endpoint manager ask of a backend, and what becomes of a request that it refuses.
#include "emi.hpp"
#include "pmi.hpp"
#include "support.hpp"

#include <cerrno>

namespace kap_node
{
namespace
{

// Writes down what it is asked, and refuses when told.
class scripted_vlans : public vlan_backend
{
public:
    std::optional<kernel_refusal> open(const std::string &port, uint16_t vlan_id) override
    {
        return asked("open " + port + " " + std::to_string(vlan_id));
    }
    std::optional<kernel_refusal> close(const std::string &port, uint16_t vlan_id) override
    {
        return asked("close " + port + " " + std::to_string(vlan_id));
    }
    json show() const override { return shown; }

    std::vector<std::string> take() { return std::exchange(calls, {}); }

    std::vector<std::string> calls;
    std::optional<kernel_refusal> refusal;
    json shown;

private:
    std::optional<kernel_refusal> asked(const std::string &call)
    {
        calls.push_back(call);
        return refusal;
    }
};

using words = std::vector<std::string>;

class PmiBackend : public ServiceTest<pmi_service>
{
protected:
    void SetUp() override
    {
        tested = std::make_unique<pmi_service>(config, out, backend);
        receive(message_of(0x1B1003, "00 00 00 02  00 00 00 C8  00 00 00 01  00 00 00 01"));
        out.take();
    }
    void enable() { receive(message_of(0x1B1009, "00 00 00 07  00 00 00 01  'IDLA1' 0*11  00 00 00 64")); }
    void disable() { receive(message_of(0x1B100C, "00 00 00 08  00 00 00 01  'IDLA1' 0*11  00 00 00 64")); }
    void expect_enabled() { expect_answer(message_of(0x1B100A, "00 00 00 07  00 00 00 01")); }
    void expect_disabled() { expect_answer(message_of(0x1B100D, "00 00 00 08  00 00 00 01")); }
    json vlans() { return tested->show()["vlans"]; }

    scripted_vlans backend;
};

TEST_F(PmiBackend, AsksForAVlanWithItsFirstUserAndTakesItAwayWithTheLast)
{
    enable();
    EXPECT_EQ(backend.take(), (words{"open IDLA1 100"}));
    enable();
    disable();
    EXPECT_EQ(backend.take(), words{});
    disable();
    EXPECT_EQ(backend.take(), (words{"close IDLA1 100"}));
    EXPECT_EQ(out.take().size(), 4u);
    EXPECT_EQ(vlans(), json::array());
}

TEST_F(PmiBackend, RejectsWhatItsBackendRefusesWithTheReasonThatFitsAndCountsNothing)
{
    const std::map<int, const char *> reasons = {
        {ENODEV, "00 00 00 03"},       {ENOENT, "00 00 00 03"}, {ENETDOWN, "00 00 00 03"},   {EPERM, "00 00 00 04"},
        {EACCES, "00 00 00 04"},       {EEXIST, "00 00 00 02"}, {EBUSY, "00 00 00 02"},      {EINVAL, "00 00 00 02"},
        {ENAMETOOLONG, "00 00 00 02"}, {ENOMEM, "00 00 00 00"}, {EOPNOTSUPP, "00 00 00 00"}, {EIO, "00 00 00 00"},
    };
    for (const auto &[error, reason] : reasons) {
        SCOPED_TRACE(strerror(error));
        backend.refusal = kernel_refusal{error, "no"};
        enable();
        expect_answer(message_of(0x1B100B, std::string("00 00 00 07  00 00 00 01  ") + reason));
        EXPECT_EQ(vlans(), json::array());
    }
    backend.take();
    backend.refusal.reset();
    enable();
    expect_enabled();
    EXPECT_EQ(backend.take(), (words{"open IDLA1 100"}));
}

TEST_F(PmiBackend, AVlanWhoseClosingIsRefusedStaysCounted)
{
    enable();
    expect_enabled();
    backend.refusal = kernel_refusal{EPERM, "no"};
    disable();
    expect_answer(message_of(0x1B100E, "00 00 00 08  00 00 00 01  00 00 00 04"));
    EXPECT_EQ(vlans()[0]["users"], 1);
    backend.refusal.reset();
    disable();
    expect_disabled();
    EXPECT_EQ(vlans(), json::array());
}

TEST_F(PmiBackend, KeepsWhatAConnectionAskedForTenSecondsAfterItsEndForWhoeverAsksAgain)
{
    enable();
    tested->client_gone(CLIENT);
    tested->tick(now);
    EXPECT_EQ(tested->next_deadline(), now + 10'000);
    receive(message_of(0x1B1003, "00 00 00 02  00 00 00 C8  00 00 00 01  00 00 00 01"), OTHER_CLIENT);
    receive(message_of(0x1B1009, "00 00 00 07  00 00 00 02  'IDLA1' 0*11  00 00 00 64"), OTHER_CLIENT);
    EXPECT_EQ(vlans()[0]["users"], 2);
    tested->tick(now + 9'999);
    EXPECT_EQ(vlans()[0]["users"], 2);
    tested->tick(now + 10'000);
    EXPECT_EQ(vlans()[0]["users"], 1);
    EXPECT_EQ(backend.take(), (words{"open IDLA1 100"}));
    tested->client_gone(OTHER_CLIENT);
    tested->tick(now + 20'000);
    tested->tick(now + 30'000);
    EXPECT_EQ(backend.take(), (words{"close IDLA1 100"}));
    EXPECT_EQ(vlans(), json::array());
    EXPECT_EQ(tested->next_deadline(), std::nullopt);
}

TEST_F(PmiBackend, WhoConnectsAgainHasItsEarlierConnectionForgotten)
{
    enable();
    receive(message_of(0x1B1003, "00 00 00 02  00 00 00 C8  00 00 00 01  00 00 00 01"));
    tested->tick(now);
    tested->tick(now + 10'000);
    EXPECT_EQ(backend.take(), (words{"open IDLA1 100", "close IDLA1 100"}));
}

TEST_F(PmiBackend, HasNothingToForgetOfAConnectionThatAskedForNothing)
{
    for (int times = 0; times < 1000; ++times) {
        receive(message_of(0x1B1003, "00 00 00 02  00 00 00 C8  00 00 00 01  00 00 00 01"));
    }
    tested->tick(now);
    EXPECT_EQ(tested->next_deadline(), std::nullopt);
}

// As many as there may be clients; the oldest of whoever ends one more goes first, and nobody else's.
TEST_F(PmiBackend, KeepsWhatFewEndedConnectionsAskedForAndOfMoreTheLatest)
{
    config.max_clients = 2;
    SetUp();
    receive(message_of(0x1B1003, "00 00 00 02  00 00 00 C8  00 00 00 01  00 00 00 01"), OTHER_CLIENT);
    receive(message_of(0x1B1009, "00 00 00 07  00 00 00 02  'IDLA1' 0*11  00 00 00 65"), OTHER_CLIENT);
    tested->client_gone(OTHER_CLIENT);
    enable();
    for (const char *reference : {"03", "04", "05"}) {
        receive(message_of(0x1B1003, "00 00 00 02  00 00 00 C8  00 00 00 01  00 00 00 01"));
        receive(
            message_of(0x1B1009, "00 00 00 07  00 00 00 " + std::string(reference) + "  'IDLA1' 0*11  00 00 00 64"));
    }
    EXPECT_EQ(vlans(), json::parse(R"([{"port": "IDLA1", "vlan_id": 100, "users": 2},
                                       {"port": "IDLA1", "vlan_id": 101, "users": 1}])"));
    EXPECT_EQ(backend.take(), (words{"open IDLA1 101", "open IDLA1 100"}));
    tested->tick(now);
    tested->tick(now + 10'000);
    EXPECT_EQ(vlans(), json::parse(R"([{"port": "IDLA1", "vlan_id": 100, "users": 1}])"));
}

TEST_F(PmiBackend, TriesAgainToCloseWhatAnEndedConnectionHadOpened)
{
    enable();
    tested->client_gone(CLIENT);
    tested->tick(now);
    backend.refusal = kernel_refusal{EPERM, "no"};
    tested->tick(now + 10'000);
    EXPECT_EQ(vlans()[0]["users"], 1);
    backend.refusal.reset();
    tested->tick(now + 20'000);
    EXPECT_EQ(vlans(), json::array());
}

TEST_F(PmiBackend, ADisableByAnotherConnectionTakesTheUserWhoeverItWas)
{
    enable();
    receive(message_of(0x1B1003, "00 00 00 02  00 00 00 C8  00 00 00 01  00 00 00 01"), OTHER_CLIENT);
    receive(message_of(0x1B100C, "00 00 00 08  00 00 00 02  'IDLA1' 0*11  00 00 00 64"), OTHER_CLIENT);
    EXPECT_EQ(vlans(), json::array());
    tested->client_gone(CLIENT);
    tested->tick(now);
    tested->tick(now + 10'000);
    EXPECT_EQ(backend.take(), (words{"open IDLA1 100", "close IDLA1 100"}));
}

TEST_F(PmiBackend, AsksNothingForARequestThatIsRejectedAnyway)
{
    receive(message_of(0x1B1009, "00 00 00 07  00 00 00 01  'IDLX9' 0*11  00 00 00 64"));
    receive(message_of(0x1B1009, "00 00 00 07  00 00 00 01  'IDLA1' 0*11  00 00 10 00"));
    receive(message_of(0x1B1009, "00 00 00 07  00 00 00 01  'IDLA1' 0*11  00 01 00 64"));
    disable();
    EXPECT_EQ(out.take().size(), 4u);
    EXPECT_EQ(backend.take(), words{});
}

TEST_F(PmiBackend, ShowsWhatItsBackendTellsOfTheKernel)
{
    EXPECT_FALSE(tested->show().contains("kernel"));
    backend.shown = {{"mended", 3}};
    EXPECT_EQ(tested->show()["kernel"], json::parse(R"({"mended": 3})"));
}

// ---- Endpoints -----------------------------------------------------------------------------------------------------

class scripted_endpoints : public endpoint_backend
{
public:
    std::optional<kernel_refusal> add(std::span<const placed_endpoint> fresh) override { return asked("add", fresh); }
    std::optional<kernel_refusal> remove(std::span<const placed_endpoint> unwanted) override
    {
        return asked("remove", unwanted);
    }
    json show() const override { return shown; }

    words take() { return std::exchange(calls, {}); }

    words calls;
    std::optional<kernel_refusal> refusal;
    json shown;

private:
    std::optional<kernel_refusal> asked(const std::string &what, std::span<const placed_endpoint> entries)
    {
        calls.push_back(what);
        for (const placed_endpoint &entry : entries) {
            calls.push_back(entry.port + (entry.far_end ? " far " : " near ") + mac_text(entry.address) + " " +
                            std::to_string(entry.vlan_id));
        }
        return refusal;
    }
};

std::string record(const std::string &port, int address, int far_end)
{
    char text[160];
    const int padding = 64 - static_cast<int>(port.size());
    (void)snprintf(text, sizeof text,
                   "'%s' 0*%d  02 00 00 00 00 %02X  0*2  00 00 00 01  00 00 00 64  0*12  00 00 00 %02X 00 0*3 ",
                   port.c_str(), padding, static_cast<unsigned>(address), static_cast<unsigned>(far_end));
    return text;
}

const std::string FAR_5 = record("DiPort_A1", 5, 1);
const std::string TN_FAR_7 = record("TNA", 7, 1);
const std::string NEAR_6 = record("", 6, 0);

class EmiBackend : public ServiceTest<emi_service>
{
protected:
    void SetUp() override
    {
        tested = std::make_unique<emi_service>(config, out, backend);
        receive(message_of(0x1B10C0, "00 00 00 02  00 00 01 2C  00 00 00 01  00 00 00 01"));
        out.take();
    }
    void ask(uint32_t number, const std::vector<std::string> &records)
    {
        std::string text = "00 00 00 07  00 00 00 01  00 00 00 0" + std::to_string(records.size()) + " ";
        for (const std::string &each : records) {
            text += each;
        }
        receive(message_of(number, text));
    }
    void add(const std::vector<std::string> &records) { ask(0x1B10C6, records); }
    void remove(const std::vector<std::string> &records) { ask(0x1B10C9, records); }
    void expect_added() { expect_answer(message_of(0x1B10C7, "00 00 00 07  00 00 00 01")); }
    void expect_removed() { expect_answer(message_of(0x1B10CA, "00 00 00 07  00 00 00 01")); }
    json endpoints() { return tested->show()["endpoints"]; }

    scripted_endpoints backend;
};

TEST_F(EmiBackend, PutsANearEndAddressOnThePortThatTheRestOfItsRequestNames)
{
    add({FAR_5, NEAR_6});
    expect_added();
    EXPECT_EQ(backend.take(),
              (words{"add", "DiPort_A1 far 02:00:00:00:00:05 100", "DiPort_A1 near 02:00:00:00:00:06 100"}));
    remove({FAR_5, NEAR_6});
    expect_removed();
    EXPECT_EQ(backend.take(),
              (words{"remove", "DiPort_A1 far 02:00:00:00:00:05 100", "DiPort_A1 near 02:00:00:00:00:06 100"}));
}

TEST_F(EmiBackend, PutsANearEndAddressOnEveryPortWhenNoneIsNamed)
{
    add({NEAR_6});
    EXPECT_EQ(backend.take(), (words{"add", "DiPort_A1 near 02:00:00:00:00:06 100", "TNA near 02:00:00:00:00:06 100"}));
}

TEST_F(EmiBackend, AsksOnceForWhatTwoLinksShareAndTakesItAwayWithTheLast)
{
    add({FAR_5, NEAR_6});
    backend.take();
    add({FAR_5, NEAR_6});
    add({TN_FAR_7, NEAR_6});
    EXPECT_EQ(backend.take(), (words{"add", "TNA near 02:00:00:00:00:06 100", "TNA far 02:00:00:00:00:07 100"}));
    remove({FAR_5, NEAR_6});
    EXPECT_EQ(backend.take(), words{});
    remove({FAR_5, NEAR_6});
    EXPECT_EQ(backend.take(),
              (words{"remove", "DiPort_A1 far 02:00:00:00:00:05 100", "DiPort_A1 near 02:00:00:00:00:06 100"}));
    remove({TN_FAR_7, NEAR_6});
    EXPECT_EQ(backend.take(), (words{"remove", "TNA near 02:00:00:00:00:06 100", "TNA far 02:00:00:00:00:07 100"}));
}

TEST_F(EmiBackend, TheLastRemovalOfANearEndAddressTakesItFromEveryPortWhicheverTheRequestNames)
{
    add({FAR_5, NEAR_6});
    backend.take();
    remove({NEAR_6, TN_FAR_7});
    EXPECT_EQ(backend.take(), (words{"remove", "DiPort_A1 near 02:00:00:00:00:06 100"}));
    EXPECT_EQ(tested->show()["unknown_removals"], 1);
}

TEST_F(EmiBackend, RejectsWholeWhatItsBackendRefusesWithTheReasonThatFits)
{
    const std::map<int, const char *> reasons = {
        {ENOSPC, "00 00 00 06"}, {ENODEV, "00 00 00 05"}, {EPERM, "00 00 00 01"}, {EINVAL, "00 00 00 01"}};
    add({FAR_5});
    out.take();
    const json before = endpoints();
    for (const auto &[error, reason] : reasons) {
        SCOPED_TRACE(strerror(error));
        backend.refusal = kernel_refusal{error, "no"};
        add({FAR_5, NEAR_6, TN_FAR_7});
        expect_answer(message_of(0x1B10C8, std::string("00 00 00 07  00 00 00 01  ") + reason));
        EXPECT_EQ(endpoints(), before);
    }
    backend.refusal.reset();
    backend.take();
    remove({FAR_5});
    EXPECT_EQ(backend.take(), (words{"remove", "DiPort_A1 far 02:00:00:00:00:05 100"}));
}

TEST_F(EmiBackend, WhatAConnectionAskedForGoesTenSecondsAfterItButWhatAnotherAsksForToo)
{
    add({FAR_5, NEAR_6});
    add({FAR_5});
    remove({FAR_5});
    receive(message_of(0x1B10C0, "00 00 00 02  00 00 01 2C  00 00 00 01  00 00 00 01"), OTHER_CLIENT);
    receive(message_of(0x1B10C6, "00 00 00 07  00 00 00 02  00 00 00 02 " + TN_FAR_7 + NEAR_6), OTHER_CLIENT);
    backend.take();
    tested->client_gone(CLIENT);
    tested->tick(now);
    tested->tick(now + 9'999);
    EXPECT_EQ(backend.take(), words{});
    tested->tick(now + 10'000);
    EXPECT_EQ(backend.take(),
              (words{"remove", "DiPort_A1 far 02:00:00:00:00:05 100", "DiPort_A1 near 02:00:00:00:00:06 100"}));
    tested->client_gone(OTHER_CLIENT);
    tested->tick(now + 20'000);
    backend.refusal = kernel_refusal{EPERM, "no"};
    tested->tick(now + 30'000);
    EXPECT_EQ(endpoints().size(), 2u);
    backend.refusal.reset();
    tested->tick(now + 40'000);
    EXPECT_EQ(endpoints(), json::array());
}

TEST_F(EmiBackend, WhatEndedConnectionsAskedForMakesRoomForWhatIsAskedForNow)
{
    config.max_endpoints = 3;
    SetUp();
    add({FAR_5, NEAR_6, TN_FAR_7});
    const auto connect_and_add = [&](const std::string &reference) {
        receive(message_of(0x1B10C0, "00 00 00 02  00 00 01 2C  00 00 00 01  00 00 00 01"));
        receive(
            message_of(0x1B10C6, "00 00 00 07  00 00 00 " + reference + "  00 00 00 03 " + FAR_5 + NEAR_6 + TN_FAR_7));
    };
    connect_and_add("02");
    EXPECT_EQ(endpoints()[0]["users"], 2);
    connect_and_add("03");
    connect_and_add("04");
    EXPECT_EQ(endpoints()[0]["users"], 2) << "of the last two connections";
    out.take();
    tested->tick(now);
    tested->tick(now + 10'000);
    EXPECT_EQ(endpoints()[0]["users"], 1);
    EXPECT_EQ(endpoints().size(), 3u);
}

TEST_F(EmiBackend, HasNothingToForgetOfAConnectionThatHasTakenBackAll)
{
    add({FAR_5, NEAR_6});
    remove({FAR_5, NEAR_6});
    receive(message_of(0x1B10C0, "00 00 00 02  00 00 01 2C  00 00 00 01  00 00 00 01"));
    tested->tick(now);
    EXPECT_EQ(tested->next_deadline(), std::nullopt);
}

// Living connections have none to make: the third that asks for all is refused.
TEST_F(EmiBackend, RefusesWhatLivingConnectionsAskForBeyondTheirRoom)
{
    config.max_endpoints = 2;
    SetUp();
    add({FAR_5, NEAR_6});
    for (const mailbox other : {OTHER_CLIENT, mailbox{79}}) {
        receive(message_of(0x1B10C0, "00 00 00 02  00 00 01 2C  00 00 00 01  00 00 00 01"), other);
        const std::string reference = other == OTHER_CLIENT ? "02" : "03";
        receive(message_of(0x1B10C6, "00 00 00 07  00 00 00 " + reference + "  00 00 00 02 " + FAR_5 + NEAR_6), other);
    }
    EXPECT_EQ(out.take().back().data, message_of(0x1B10C8, "00 00 00 07  00 00 00 03  00 00 00 06"));
    EXPECT_EQ(endpoints()[0]["users"], 2);
}

TEST_F(EmiBackend, ARemovalThatIsRefusedChangesNoCount)
{
    add({FAR_5, NEAR_6});
    out.take();
    backend.take();
    backend.refusal = kernel_refusal{EPERM, "no"};
    const json before = endpoints();
    remove({FAR_5, NEAR_6, TN_FAR_7});
    expect_answer(message_of(0x1B10CB, "00 00 00 07  00 00 00 01  00 00 00 01"));
    EXPECT_EQ(endpoints(), before);
    EXPECT_EQ(tested->show()["unknown_removals"], 0);
    backend.refusal.reset();
    backend.take();
    remove({FAR_5, NEAR_6});
    expect_removed();
    EXPECT_EQ(backend.take(),
              (words{"remove", "DiPort_A1 far 02:00:00:00:00:05 100", "DiPort_A1 near 02:00:00:00:00:06 100"}));
}

TEST_F(EmiBackend, AsksNothingForARequestThatIsRejectedAnyway)
{
    config.max_endpoints = 1;
    SetUp();
    add({FAR_5, NEAR_6});
    expect_answer(message_of(0x1B10C8, "00 00 00 07  00 00 00 01  00 00 00 06"));
    EXPECT_EQ(backend.take(), words{});
    add({FAR_5});
    EXPECT_EQ(backend.take(), (words{"add", "DiPort_A1 far 02:00:00:00:00:05 100"}));
}

TEST_F(EmiBackend, ShowsWhatItsBackendTellsOfTheKernel)
{
    EXPECT_FALSE(tested->show().contains("kernel"));
    backend.shown = {{"mended", 3}};
    EXPECT_EQ(tested->show()["kernel"], json::parse(R"({"mended": 3})"));
}

} // namespace
} // namespace kap_node
