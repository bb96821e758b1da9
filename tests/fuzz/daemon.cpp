// The whole core, connected to its services, with two clients and two links, is given messages of one protocol (or of
// all) made from the input. A message is: its sender (1 byte), its number (1 byte, an index into the protocol's), how
// long it is (1 byte; 255: two more bytes), its bytes. Nothing of it may be read behind its end, leak or crash, and the
// platform's own bookkeeping (double frees, messages nobody freed) must hold.
#include <cstdlib>

#include "input.hpp"
#include "support/daemon.hpp"

namespace
{

using namespace daemon_test;
using fuzz::Input;

struct numbers {
    uint32_t first;
    uint32_t last;
};

namespace protocol
{
[[maybe_unused]] constexpr numbers iemli = {0x1B0E00, 0x1B0E19};
[[maybe_unused]] constexpr numbers iepcsi = {0x1B1041, 0x1B1068};
[[maybe_unused]] constexpr numbers pmi = {0x1B1001, 0x1B100E};
[[maybe_unused]] constexpr numbers emi = {0x1B10C0, 0x1B10CB};
[[maybe_unused]] constexpr numbers fmi = {0x1B0F50, 0x1B0F69};
[[maybe_unused]] constexpr numbers aasi = {0x1A004C0, 0x1A004C7};
[[maybe_unused]] constexpr numbers shell = {0x1B0CE2, 0x1B0CE6};
[[maybe_unused]] constexpr numbers supervision = {0x1B0CE6, 0x1B0CE6};
[[maybe_unused]] constexpr numbers ns = {0x1900000, 0x1900002};
[[maybe_unused]] constexpr numbers all = {0, 0};
} // namespace protocol

constexpr numbers EVERY[] = {protocol::iemli, protocol::iepcsi, protocol::pmi,   protocol::emi,
                             protocol::fmi,   protocol::aasi,   protocol::shell, protocol::ns};
constexpr uint32_t SENDERS[] = {CLIENT, OTHER_CLIENT, STRANGER, IEPCSI, PMI, EMI, FMI, AASI, ITC_NO_MBOX};

uint32_t number_of(const numbers &protocol, uint8_t index)
{
    if (protocol.last == 0) {
        const numbers &one = EVERY[index % std::size(EVERY)];
        return one.first + index % (one.last - one.first + 1);
    }
    return protocol.first + index % (protocol.last - protocol.first + 1);
}

class Rig : public DaemonTest
{
public:
    void TestBody() override {}

    void play(const uint8_t *data, size_t size)
    {
        SetUp();
        start();
        const uint32_t first = open_session(CLIENT, 11);
        open_session(OTHER_CLIENT, 12);
        create_link(first, {});
        create_link(first, {.port = "IDL_B1", .vlan = 101, .app_links = {APP_1, APP_2}});
        start_aasi();
        Input input(data, size);
        set_modes(input.byte());
        while (input.more()) {
            message(&input);
        }
        TearDown();
    }

private:
    void set_modes(uint8_t modes)
    {
        pmi_answers = (modes & 1) != 0 ? answer::never : answer::confirm;
        emi_answers = (modes & 2) != 0 ? answer::never : answer::confirm;
        fmi_answers = (modes & 4) != 0 ? answer::never : answer::confirm;
    }

    static void message(Input *input)
    {
        const uint32_t sender = SENDERS[input->byte() % std::size(SENDERS)];
        const uint32_t number = number_of(protocol::FUZZ_PROTOCOL, input->byte());
        size_t length = input->byte();
        if (length == 255) {
            length += input->byte() + 256u * (input->byte() % 16);
        }
        Builder b;
        b.u32(number);
        const Bytes rest = input->bytes(length);
        b.bytes.insert(b.bytes.end(), rest.begin(), rest.end());
        request(b, sender);
        forget_records();
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool ready = [] {
        GTEST_FLAG_SET(break_on_failure, true); // a failed expectation of the platform ends the process
        return true;
    }();
    Rig rig;
    if (ready) {
        rig.play(data, size);
    }
    return 0;
}
