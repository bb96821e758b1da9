// The whole daemon core on the platform in memory, with every lower-layer service scripted: each finds its client,
// connects it, and answers requests at once, never, or with a reject, as the test says. What the daemon sends is
// recorded by the platform; messages are written out here byte by byte.
//
//   class Thing : public daemon_test::DaemonTest {};
//   TEST_F(Thing, DoesWhatItSays)
//   {
//       start();                                    // all four services up, IEMLI published
//       const uint32_t session = open_session();    // of CLIENT
//       request(create_request(session, 1, {.port = "IDL_A1", .vlan = 100}));
//       EXPECT_EQ(take_to(CLIENT, IEMLI_CREATE_INTER_ME_LINK_CFM).word(3), 1u);
//   }
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "clients/aasi_client.hpp"
#include "clients/emi_client.hpp"
#include "clients/fmi_client.hpp"
#include "clients/iepcsi_client.hpp"
#include "clients/pmi_client.hpp"
#include "fake_platform.hpp"
#include "iemli/iemli_server.hpp"
#include "manager/links/link_events.hpp"
#include "manager/links/link_procedures.hpp"
#include "manager/links/link_supervision.hpp"
#include "manager/links/supervision_results.hpp"
#include "manager/manager_state.hpp"
#include "manager/rules/port_endpoints.hpp"
#include "manager/table/link_table.hpp"
#include "manager/vorn_manager.hpp"

namespace daemon_test
{

using fake::Builder;
using fake::Bytes;

enum mailbox : uint32_t {
    IEPCSI = 0x00100001,
    PMI = 0x00200001,
    EMI = 0x00300001,
    FMI = 0x00400001,
    AASI = 0x00500001,
    CLIENT = 0x00600001,
    OTHER_CLIENT = 0x00700001,
    STRANGER = 0x00800001,
};

enum class answer {
    confirm,
    reject,
    never, // the test answers itself
};

struct Port {
    std::string name; // as IEPCSI names it
    std::string mac;
    std::string if_name;
    std::string name_space;
    uint32_t adm_state = 1;
    uint32_t oper_state = 1;
};

struct AppLink {
    const char *near_end;
    const char *far_end;
};

inline const AppLink APP_1 = {"02:00:00:00:0A:01", "02:00:00:00:0B:01"};
inline const AppLink APP_2 = {"02:00:00:00:0A:02", "02:00:00:00:0B:02"};
inline const AppLink APP_3 = {"02:00:00:00:0A:03", "02:00:00:00:0B:03"};

struct Link {
    uint8_t mp_id = 1;
    std::string cpm = "02:00:00:00:0C:01";
    std::string port = "IDL_A1"; // as IEMLI names it
    uint16_t vlan = 100;
    std::vector<AppLink> app_links = {APP_1};
};

// The 32-bit word at a place of a message, in host and in network byte order.
inline uint32_t word(const Bytes &bytes, size_t index)
{
    uint32_t value = 0;
    if (bytes.size() < 4 * (index + 1)) {
        ADD_FAILURE() << "the message has no word " << index;
        return 0;
    }
    memcpy(&value, bytes.data() + 4 * index, 4);
    return value;
}
inline uint32_t net_word(const Bytes &bytes, size_t index) { return ntohl(word(bytes, index)); }

struct Message : fake::Sent {
    [[nodiscard]] uint32_t word(size_t index) const { return daemon_test::word(bytes, index); }
    [[nodiscard]] uint32_t net_word(size_t index) const { return daemon_test::net_word(bytes, index); }
    [[nodiscard]] std::string text(size_t offset) const
    {
        return offset < bytes.size() ? reinterpret_cast<const char *>(bytes.data() + offset) : "";
    }
};

// ---- Link data, in the daemon's own structure ----

// Free it with free().
inline IemliLinkData *make_link_data(const Link &link)
{
    const auto n = static_cast<uint32_t>(link.app_links.size());
    Builder b;
    b.u8(link.mp_id).mac(link.cpm.c_str()).text(link.port, 17).u16(link.vlan).zeros(2).u32(n);
    for (const AppLink &app : link.app_links) {
        b.mac(app.near_end).mac(app.far_end);
    }
    b.zeros(n == 0 ? 12 : 0);
    void *data = malloc(b.bytes.size());
    memcpy(data, b.bytes.data(), b.bytes.size());
    return static_cast<IemliLinkData *>(data);
}

// Free it with free(); what the server hands to a procedure.
inline IemliPendingRequest *make_request(uint32_t action, uint32_t session, uint32_t link_ref = 0)
{
    auto *request = static_cast<IemliPendingRequest *>(calloc(1, sizeof(IemliPendingRequest)));
    *request = {session, 77, link_ref, static_cast<iemli_pending_action>(action)};
    return request;
}

inline mac_address to_mac(const char *text)
{
    const Bytes bytes = Builder().mac(text);
    mac_address mac = {};
    memcpy(mac.byte, bytes.data(), sizeof mac.byte);
    return mac;
}

// ---- The services ----

class DaemonTest : public fake::PlatformTest
{
protected:
    std::vector<Port> ports = {
        {"IDLA1", "02:00:00:00:00:A1", "eth_a1", "ns_a1"},
        {"IDLB1", "02:00:00:00:00:B1", "eth_b1", "ns_b1"},
        {"TNA", "02:00:00:00:00:1A", "eth_tna", "ns_tna"},
    };
    answer pmi_answers = answer::confirm;
    answer emi_answers = answer::confirm;
    answer fmi_answers = answer::confirm;
    std::set<uint32_t> fmi_refused;       // message numbers that FMI rejects while it confirms the others
    std::map<uint32_t, int> fmi_refusals; // message number: how many of the next ones FMI rejects
    uint32_t next_rule_id = 1;
    uint32_t next_client_procedure = 1000; // for requests whose procedure_ref does not matter

    void SetUp() override
    {
        PlatformTest::SetUp();
        forget_all();
        fake::on_send([this](const fake::Sent &message) { serve(message); });
        for (const Port &port : ports) {
            fake::add_netns(port.name_space);
        }
    }

    void TearDown() override
    {
        forget_all();
        PlatformTest::TearDown();
    }

    static void forget_all()
    {
        iemli_server_forget_all();
        link_procedures_forget_all();
        port_endpoints_forget_all();
        iml_link_table_clear();
        fmi_client_forget_all();
        iepcsi_client_forget_all();
        pmi_client_forget_all();
        emi_client_forget_all();
        aasi_client_forget_all();
        manager_state_reset();
    }

    // Start-up of the process; the servers that the test names are found and connect. Ends when the queue is empty.
    void start(const std::vector<std::string> &servers = {"flow-manager", "iepcsi-server", "pmi-server",
                                                          "endpoint_mgr"})
    {
        for (const std::string &server : servers) {
            fake::name(server, mailbox_of(server));
        }
        ASSERT_EQ(vorn_manager_run(), 0);
        fake::calls().clear();
        if (iepcsi_get_port_list() != nullptr) {
            for (const Port &port : ports) {
                port_status(port);
            }
        }
        forget_records();
    }

    // The server appears after start-up.
    void start_server(const std::string &server)
    {
        fake::name(server, mailbox_of(server));
        run();
    }

    // The automation agent announces itself and connects.
    void start_aasi()
    {
        fake::name("automationagentsi", AASI);
        fake::push(ITC_NO_MBOX, Builder().u32(0x1900000).u32(9));
        fake::push(ITC_NO_MBOX, Builder().u32(0x1900001).u32(9).u32(AASI).zeros(8).text("automationagentsi", 18));
        run();
        ASSERT_TRUE(is_aasi_service_up());
    }

    // Has the loop handle everything that is queued.
    static void run() { receive_loop(); }

    static void forget_records()
    {
        fake::sent().clear();
        fake::traces().clear();
    }

    // ---- What IEPCSI says ----

    static void port_status(const Port &port)
    {
        fake::push(IEPCSI, Builder()
                               .u32(0x1B1055)
                               .n32(0)
                               .n32(100)
                               .n32(port.adm_state)
                               .n32(port.oper_state)
                               .text(port.name, 16)
                               .text(port.name_space, port.name_space.size() + 1));
        run();
    }

    // Changes what IEPCSI says of a port from here on, and says it.
    void set_port(const std::string &name, uint32_t adm_state, uint32_t oper_state)
    {
        for (Port &port : ports) {
            if (port.name == name) {
                port.adm_state = adm_state;
                port.oper_state = oper_state;
                port_status(port);
                return;
            }
        }
        ADD_FAILURE() << "no port " << name;
    }

    static void port_vlan(const std::string &port, uint16_t vlan, uint32_t action, const std::string &if_name,
                          const std::string &name_space)
    {
        fake::add_netns(name_space);
        fake::push(IEPCSI, Builder()
                               .u32(0x1B1068)
                               .n32(0)
                               .n32(100)
                               .n16(vlan)
                               .zeros(2)
                               .n32(action)
                               .n32(2)
                               .text(if_name, 16)
                               .text(port, 16)
                               .text(name_space, name_space.size() + 1));
        run();
    }
    static void add_vlan(const std::string &port, uint16_t vlan, const std::string &if_name,
                         const std::string &name_space)
    {
        port_vlan(port, vlan, 1, if_name, name_space);
    }
    static void remove_vlan(const std::string &port, uint16_t vlan) { port_vlan(port, vlan, 2, "", ""); }

    // ---- Answers of PMI and EMI that the test gives itself ----

    static void answer_to(const fake::Sent &request, bool confirm)
    {
        const uint32_t procedure_ref = net_word(request.bytes, 1);
        const uint32_t msgno = request.msgno() + (confirm ? 1 : 2);
        Builder b;
        b.u32(msgno).n32(procedure_ref).n32(200);
        fake::push(request.to, confirm ? b : b.n32(1));
    }
    static void confirm(const fake::Sent &request)
    {
        answer_to(request, true);
        run();
    }
    static void reject(const fake::Sent &request)
    {
        answer_to(request, false);
        run();
    }

    // ---- Clients ----

    // Opens an IEMLI session and returns its server_conn_ref; 0 when it is refused.
    static uint32_t open_session(uint32_t client = CLIENT, uint32_t client_conn_ref = 11)
    {
        fake::push(client, Builder().u32(0x1B0E03).u32(1).u32(client_conn_ref).u32(1).u32(0).u32(0));
        run();
        const Message answer = take_to(client, IEMLI_INIT_SERVICE_CFM);
        return answer.bytes.size() == 16 ? answer.word(2) : 0;
    }

    static Bytes create_request(uint32_t session, uint32_t procedure_ref, const Link &link)
    {
        IemliLinkData *data = make_link_data(link);
        const auto size = static_cast<size_t>(iemli_link_data_size(data->numberOfAppLinks));
        Builder b;
        b.u32(0x1B0E0B).u32(procedure_ref).u32(session);
        const auto *first = reinterpret_cast<const uint8_t *>(data);
        b.bytes.insert(b.bytes.end(), first, first + size);
        free(data);
        return b;
    }
    static Bytes update_request(uint32_t session, uint32_t procedure_ref, uint32_t link_ref,
                                const std::vector<AppLink> &apps)
    {
        Builder b;
        b.u32(0x1B0E0E).u32(procedure_ref).u32(session).u32(link_ref).u32(static_cast<uint32_t>(apps.size()));
        for (const AppLink &app : apps) {
            b.mac(app.near_end).mac(app.far_end);
        }
        return b.zeros(apps.empty() ? 12 : 0);
    }
    static Bytes delete_request(uint32_t session, uint32_t procedure_ref, uint32_t link_ref)
    {
        return Builder().u32(0x1B0E11).u32(procedure_ref).u32(session).u32(link_ref);
    }
    static Bytes term_request(uint32_t session, uint32_t procedure_ref)
    {
        return Builder().u32(0x1B0E06).u32(procedure_ref).u32(session);
    }
    static Bytes enable_rtt_request(uint32_t session, uint32_t procedure_ref, uint32_t link_ref, uint16_t batch,
                                    uint16_t interval, uint16_t frame_size)
    {
        return Builder()
            .u32(0x1B0E14)
            .u32(procedure_ref)
            .u32(session)
            .u32(link_ref)
            .u16(batch)
            .u16(interval)
            .u16(frame_size)
            .zeros(2);
    }
    static Bytes disable_rtt_request(uint32_t session, uint32_t procedure_ref, uint32_t link_ref)
    {
        return Builder().u32(0x1B0E17).u32(procedure_ref).u32(session).u32(link_ref);
    }

    static void request(const Bytes &bytes, uint32_t client = CLIENT)
    {
        fake::push(client, bytes);
        run();
    }

    // Creates a link with services that answer at once; returns its link_ref, or 0.
    uint32_t create_link(uint32_t session, const Link &link, uint32_t client = CLIENT)
    {
        request(create_request(session, next_client_procedure++, link), client);
        const Message answer = take_to(client, IEMLI_CREATE_INTER_ME_LINK_CFM);
        return answer.bytes.size() == 16 ? answer.word(3) : 0;
    }

    // ---- What was traced ----

    // The traces that tell of decisions: without sent and received messages, calls and parameter dumps.
    static std::vector<fake::Trace> notices()
    {
        const std::set<uint32_t> left_out = {2, 12, 17, 18, 19};
        std::vector<fake::Trace> found;
        for (const fake::Trace &trace : fake::traces()) {
            if (left_out.count(trace.level) == 0) {
                found.push_back(trace);
            }
        }
        return found;
    }

    // ---- What was sent ----

    // Removes and returns the first message of this number to this mailbox; fails when there is none.
    static Message take_to(uint32_t mailbox, uint32_t msgno)
    {
        auto &sent = fake::sent();
        for (auto it = sent.begin(); it != sent.end(); ++it) {
            if (it->to == mailbox && it->msgno() == msgno) {
                Message found = {*it};
                sent.erase(it);
                return found;
            }
        }
        ADD_FAILURE() << "no message 0x" << std::hex << msgno << " was sent to 0x" << mailbox;
        return {{0, 0, Bytes(4)}};
    }
    // The numbers of everything sent to a mailbox, in order.
    static std::vector<uint32_t> numbers_to(uint32_t mailbox)
    {
        std::vector<uint32_t> numbers;
        for (const fake::Sent &message : fake::sent()) {
            if (message.to == mailbox) {
                numbers.push_back(message.msgno());
            }
        }
        return numbers;
    }
    // Everything sent to a mailbox, in order.
    static std::vector<Message> messages_to(uint32_t mailbox)
    {
        std::vector<Message> messages;
        for (const fake::Sent &message : fake::sent()) {
            if (message.to == mailbox) {
                messages.push_back({message});
            }
        }
        return messages;
    }

    // ---- Supervision ----

    // The supervision library reports, and the loop takes it.
    static void supervision(uint32_t session, uint32_t result, uint32_t sec = 0, uint32_t nsec = 0)
    {
        fake::supervision_result(session, result, sec, nsec);
        run();
    }

private:
    static uint32_t mailbox_of(const std::string &server)
    {
        const std::map<std::string, uint32_t> mailboxes = {
            {"flow-manager", FMI}, {"iepcsi-server", IEPCSI}, {"pmi-server", PMI}, {"endpoint_mgr", EMI}};
        return mailboxes.at(server);
    }

    void serve(const fake::Sent &message)
    {
        switch (message.to) {
        case IEPCSI:
            serve_iepcsi(message);
            break;
        case PMI:
            serve_pmi(message);
            break;
        case EMI:
            serve_emi(message);
            break;
        case FMI:
            serve_fmi(message);
            break;
        case AASI:
            if (message.msgno() == 0x1A00440) {
                fake::push(AASI, reply(message, 0x1A004C0, 500).n32(1));
            }
            break;
        default:
            break;
        }
    }

    static Builder reply(const fake::Sent &to, uint32_t msgno, uint32_t connection_ref)
    {
        return Builder().u32(msgno).n32(net_word(to.bytes, 1)).n32(connection_ref);
    }

    void serve_iepcsi(const fake::Sent &message)
    {
        if (message.msgno() == 0x1B1043) {
            fake::push(IEPCSI, reply(message, 0x1B1044, 100).n32(1));
        } else if (message.msgno() == 0x1B1048) {
            Builder b = reply(message, 0x1B1049, 100).n32(static_cast<uint32_t>(ports.size()));
            for (auto port = ports.rbegin(); port != ports.rend(); ++port) { // so that the list is in our order
                b.n32(2).zeros(4).mac(port->mac.c_str()).text(port->name, 16).text(port->if_name, 16).zeros(2);
            }
            fake::push(IEPCSI, b);
        }
    }

    void serve_pmi(const fake::Sent &message)
    {
        if (message.msgno() == 0x1B1003) {
            fake::push(PMI, reply(message, 0x1B1004, 200).n32(1));
        } else if (message.msgno() == 0x1B1006) {
            fake::push(PMI, reply(message, 0x1B1007, 200).n32(0));
        } else if (pmi_answers != answer::never && (message.msgno() == 0x1B1009 || message.msgno() == 0x1B100C)) {
            const bool names_a_port = message.bytes[offsetof(pmi_port_vlan_req, port_name)] != 0;
            answer_to(message, names_a_port && pmi_answers == answer::confirm);
        }
    }

    void serve_emi(const fake::Sent &message)
    {
        if (message.msgno() == 0x1B10C0) {
            fake::push(EMI, reply(message, 0x1B10C1, 300).n32(1));
        } else if (message.msgno() == 0x1B10C3) {
            fake::push(EMI, reply(message, 0x1B10C4, 300).n32(2).n32(1).n32(2));
        } else if (emi_answers != answer::never && (message.msgno() == 0x1B10C6 || message.msgno() == 0x1B10C9)) {
            answer_to(message, emi_answers == answer::confirm);
        }
    }

    bool fmi_refuses(uint32_t msgno)
    {
        if (fmi_refusals[msgno] > 0) {
            --fmi_refusals[msgno];
            return true;
        }
        return fmi_answers == answer::reject || fmi_refused.count(msgno) == 1;
    }

    void serve_fmi(const fake::Sent &message)
    {
        const uint32_t msgno = message.msgno();
        if (msgno < 0x1B0F50 || msgno > 0x1B0F69) {
            return; // the answer to something that was asked in this service's name
        }
        if (msgno == 0x1B0F50) {
            fake::push(FMI, reply(message, 0x1B0F51, 400).n32(1));
        } else if (msgno == 0x1B0F53) {
            Builder b = reply(message, 0x1B0F54, 400).n32(6);
            for (uint32_t capability = 1; capability <= 6; ++capability) {
                b.n32(capability).zeros(4);
            }
            fake::push(FMI, b);
        } else if (fmi_refuses(msgno)) {
            fake::push(FMI, reply(message, msgno + 2, 400).n32(1).zeros(4 + 128 + 64));
        } else if (fmi_answers != answer::never) {
            fake::push(FMI, fmi_confirm(message));
        }
    }

    Bytes fmi_confirm(const fake::Sent &message)
    {
        Builder b = reply(message, message.msgno() + 1, 400);
        switch (message.msgno()) {
        case 0x1B0F58:
            return b.zeros(64);
        case 0x1B0F5B:
            return b.n32(0).n32(next_rule_id++).zeros(64);
        case 0x1B0F61:
            return b.zeros(64).n32(next_rule_id++);
        case 0x1B0F67:
            return b.n32(next_rule_id++).zeros(64);
        default: // removals
            return b.n32(0).zeros(64);
        }
    }
};

} // namespace daemon_test
