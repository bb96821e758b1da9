// Whole sessions against the whole core: clients come, ask, and die, the lower layers answer or do not, services go and
// come back, ports and VLANs change, supervision reports, memory and namespaces fail, and in between somebody sends
// bytes under any number. Each step is one byte and what it needs, so that a long story is a short input. After every
// step what support/ledger.hpp says of tables, sessions and the library must hold.
#include <cstdlib>

#include "input.hpp"
#include "support/ledger.hpp"
#include "support/message_windows.hpp"
#include "support/nobody.hpp"

namespace
{

using namespace daemon_test;
using fuzz::Input;
using fuzz::require;

constexpr uint32_t CLIENTS[] = {CLIENT, OTHER_CLIENT, STRANGER};
constexpr uint32_t SENDERS[] = {CLIENT, OTHER_CLIENT, STRANGER, IEPCSI, PMI, EMI, FMI, AASI, ITC_NO_MBOX};
constexpr const char *PORTS[] = {"IDL_A1", "IDL_B1", "TN_A", "TN_D", nobody::PORT, ""};
constexpr const char *CPMS[] = {"02:00:00:00:0C:01", "02:00:00:00:0C:02", "02:00:00:00:00:A1"};

class Story : public DaemonTest
{
public:
    explicit Story(Input input) : input_(input) {}
    void TestBody() override {}

    void play()
    {
        SetUp();
        fake::set_trace_mask(input_.byte() % 8 == 0 ? 0xFFFFFFFFu : 0);
        start();
        pmi_answers = answer::never;
        emi_answers = answer::never;
        ledger_.knows_every_request = false;
        ledger_.end();
        while (input_.more()) {
            ledger_.begin("a step");
            ledger_.foreign_messages();
            step();
            run();
            take_sent();
        }
        fake::set_trace_mask(0xFFFFFFFFu);
        TearDown();
    }

private:
    void step()
    {
        switch (input_.pick(24)) {
        case 0:
            return open();
        case 1:
        case 2:
        case 3:
            return ask(create_request(session(), next_ref_++, link()));
        case 4:
        case 5:
            return ask(update_request(session(), next_ref_++, link_ref(), app_links()));
        case 6:
            return ask(delete_request(session(), next_ref_++, link_ref()));
        case 7:
            return ask(enable_rtt_request(session(), next_ref_++, link_ref(), input_.byte() % 61, input_.byte() % 31,
                                          input_.half()));
        case 8:
            return ask(disable_rtt_request(session(), next_ref_++, link_ref()));
        case 9:
            return ask(term_request(session(), next_ref_++));
        case 10:
            return fake::kill(client());
        case 11:
        case 12:
        case 13:
            return answer_one(true);
        case 14:
            return answer_one(false);
        case 15:
            return supervise();
        case 16:
            return set_port(ports[input_.pick(ports.size())].name, input_.byte() % 3, input_.byte() % 3);
        case 17:
            return change_vlan();
        case 18:
            return lose_service();
        case 19:
            return return_service();
        case 20:
            fmi_answers = static_cast<answer>(input_.pick(3));
            return;
        case 21:
            return ask(Builder().u32(0x1B0CE3)); // the link list
        case 22:
            return change_next();
        default:
            return anything();
        }
    }

    uint32_t client() { return CLIENTS[input_.pick(std::size(CLIENTS))]; }
    uint32_t session() { return 1 + static_cast<uint32_t>(input_.pick(3)); }
    uint32_t link_ref() { return 1 + static_cast<uint32_t>(input_.pick(6)); }
    std::vector<AppLink> app_links()
    {
        std::vector<AppLink> apps;
        for (uint8_t which = input_.byte(); which != 0; which = which >> 2) {
            apps.push_back(std::vector<AppLink>{APP_1, APP_2, APP_3, APP_1}[which % 4]);
        }
        return apps;
    }
    Link link()
    {
        Link l;
        const uint8_t how = input_.byte();
        l.port = PORTS[how % std::size(PORTS)];
        l.cpm = CPMS[how / 8 % std::size(CPMS)];
        l.vlan = static_cast<uint16_t>(100 + (how >> 6));
        l.mp_id = static_cast<uint8_t>(input_.byte() % 65);
        l.app_links = app_links();
        return l;
    }

    void open()
    {
        ask(Builder().u32(IEMLI_INIT_SERVICE_REQ).u32(next_ref_++).u32(input_.byte() % 4).u32(1).u32(0).u32(0));
    }

    // Sent by some client, cut or changed as was said before.
    void ask(const Bytes &request_bytes)
    {
        Bytes bytes = request_bytes;
        if (cut_ != 0 && bytes.size() > 4) {
            bytes.resize(4 + cut_ % (bytes.size() - 3));
            cut_ = 0;
        }
        if (change_ != 0 && bytes.size() > 4) {
            bytes[4 + change_at_ % (bytes.size() - 4)] ^= change_;
            change_ = 0;
        }
        request(bytes, client());
    }

    void change_next()
    {
        cut_ = input_.byte();
        if (cut_ % 2 == 0) {
            cut_ = 0;
            change_at_ = input_.byte();
            change_ = input_.byte();
        }
    }

    void answer_one(bool yes)
    {
        if (outstanding_.empty()) {
            return;
        }
        const size_t i = input_.pick(outstanding_.size());
        const fake::Sent message = outstanding_[i];
        if (input_.pick(16) != 0) { // else it comes once more
            outstanding_.erase(outstanding_.begin() + static_cast<std::ptrdiff_t>(i));
        }
        answer_to(message, yes);
    }

    void supervise()
    {
        if (!fake::sessions().empty()) {
            auto it = fake::sessions().begin();
            std::advance(it, static_cast<std::ptrdiff_t>(input_.pick(fake::sessions().size())));
            const uint8_t how = input_.byte();
            for (unsigned i = 0; i < 1u + (how >> 5); ++i) {
                fake::supervision_result(it->first, how % 5, how, input_.word());
            }
        }
        fake::set_start_results(std::vector<uint32_t>(input_.pick(3), 7)); // the next ones
    }

    void change_vlan()
    {
        const Port &port = ports[input_.pick(ports.size())];
        const auto vlan = static_cast<uint16_t>(100 + input_.pick(4));
        port_vlan(port.name, vlan, 1 + input_.byte() % 3, port.if_name, port.name_space);
    }

    void lose_service()
    {
        const uint32_t service = SENDERS[3 + input_.pick(4)];
        std::erase_if(outstanding_, [=](const fake::Sent &message) { return message.to == service; });
        fake::kill(service);
    }

    void return_service()
    {
        switch (input_.pick(5)) {
        case 0:
            return iepcsi_client_init(client_event_cb);
        case 1:
            return pmi_client_init(client_event_cb);
        case 2:
            return emi_client_init(client_event_cb);
        case 3:
            return fmi_client_init(client_event_cb);
        default:
            fake::name("automationagentsi", AASI);
            fake::push(ITC_NO_MBOX, Builder().u32(0x1900000).u32(9));
            fake::push(
                ITC_NO_MBOX,
                Builder().u32(0x1900001 + input_.byte() % 2).u32(9).u32(AASI).zeros(8).text("automationagentsi", 18));
            return;
        }
    }

    void anything()
    {
        const message_windows::window &protocol =
            message_windows::EVERY[input_.pick(std::size(message_windows::EVERY))];
        Builder b;
        b.u32(protocol.number(input_.byte()));
        const Bytes rest = input_.bytes(input_.byte());
        b.bytes.insert(b.bytes.end(), rest.begin(), rest.end());
        request(b, SENDERS[input_.pick(std::size(SENDERS))]);
    }

    void take_sent()
    {
        for (const fake::Sent &message : fake::sent()) {
            const bool asks_pmi = message.to == PMI && (message.msgno() == 0x1B1009 || message.msgno() == 0x1B100C);
            const bool asks_emi = message.to == EMI && (message.msgno() == 0x1B10C6 || message.msgno() == 0x1B10C9);
            if ((asks_pmi || asks_emi) && outstanding_.size() < 64) {
                outstanding_.push_back(message);
            }
        }
        ledger_.end();
        require(ledger_.broken().empty(), ledger_.broken().c_str());
        forget_records();
        fake::calls().clear();
        fake::receive_timeouts().clear();
    }

    Input input_;
    Ledger ledger_;
    std::vector<fake::Sent> outstanding_;
    uint32_t next_ref_ = 1;
    uint8_t cut_ = 0;
    uint8_t change_ = 0;
    uint8_t change_at_ = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool ready = [] {
        GTEST_FLAG_SET(break_on_failure, true); // a failed expectation of the platform ends the process
        return true;
    }();
    if (ready) {
        Story(Input(data, size)).play();
    }
    return 0;
}
