// The whole core, connected to its services, with two clients and two links, is given messages of one protocol (or of
// all) made from the input. A message is: its sender (1 byte), of all protocols one (1 byte), its number (1 byte,
// counted from the protocol's first), how long it is (1 byte; 255: two more bytes), its bytes. Nothing of it may be
// read behind its end, leak or crash, and the platform's own bookkeeping (double frees, messages nobody freed) must
// hold.
#include <cstdlib>

#include "input.hpp"
#include "support/daemon.hpp"
#include "support/message_windows.hpp"

namespace
{

using namespace daemon_test;
using fuzz::Input;
using message_windows::window;

#ifdef FUZZ_PROTOCOL
constexpr window PROTOCOL[] = {message_windows::FUZZ_PROTOCOL};
#else
constexpr auto &PROTOCOL = message_windows::EVERY;
#endif

constexpr uint32_t SENDERS[] = {CLIENT, OTHER_CLIENT, STRANGER, IEPCSI, PMI, EMI, FMI, AASI, ITC_NO_MBOX};

// A number of the target's protocol; of any, when it has none.
uint32_t take_number(Input *input)
{
    const window &protocol = std::size(PROTOCOL) == 1 ? PROTOCOL[0] : PROTOCOL[input->byte() % std::size(PROTOCOL)];
    return protocol.number(input->byte());
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
        const uint32_t number = take_number(input);
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
