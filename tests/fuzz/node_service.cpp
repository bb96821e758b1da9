// The services of the reference node: clients connect, ask, and die; somebody gives commands, as words or as bytes that
// may be JSON; time passes. Every command has a reply that is JSON, and every message to a client has a head at least.
#include <memory>

#include "aasi.hpp"
#include "control_wire.hpp"
#include "emi.hpp"
#include "fmi.hpp"
#include "iepcsi.hpp"
#include "input.hpp"
#include "pmi.hpp"

namespace
{

using namespace kap_node;
using fuzz::Input;
using fuzz::require;

constexpr size_t SERVICES = 5;
constexpr size_t CLIENTS = 3;
constexpr uint32_t FIRST_NUMBERS[SERVICES] = {0x1B1041, 0x1B1001, 0x1B10C0, 0x1B0F50, 0x1A00440};
constexpr size_t NUMBERS[SERVICES] = {0x28, 0x0E, 0x0C, 0x1A, 0x08};

class Outlet : public outlet
{
public:
    void send(mailbox to, bytes message) override
    {
        require(message.size() >= 4, "a message has a number");
        if (message.size() >= HEAD_SIZE) {
            connection[to] = message_view(message).connection_ref(); // a client goes on with what it was given
        }
    }
    void watch(mailbox client) override { require(client != 0, "a client has a mailbox"); }
    std::optional<mailbox> locate(const std::string &name) override
    {
        return name == "kap-vorn" ? std::optional<mailbox>(1) : std::nullopt;
    }

    std::map<mailbox, uint32_t> connection;
};

node_config two_ports()
{
    node_config config;
    config.max_clients = 2;
    config.max_endpoints = 16;
    config.max_rules = 16;
    for (const char *name : {"IDLA1", "TNA"}) {
        port_config port;
        port.name = name;
        port.fmi_name = std::string("DiPort_") + name;
        port.interface = name;
        port.name_space = port.reported_name_space = "near";
        port.unlocked = true;
        port.vlan_interfaces = port.name == "TNA";
        config.ports.push_back(port);
    }
    return config;
}

const char *const WORDS[] = {"show",
                             "fault",
                             "die",
                             "send",
                             "reject",
                             "silent",
                             "delay",
                             "clear",
                             "any",
                             "1",
                             "0",
                             "4294967295",
                             "0x7FFFFFFF",
                             "lock",
                             "unlock",
                             "vlan-add",
                             "IDLA1",
                             "TNA",
                             "100",
                             "vlan-remove",
                             "appear",
                             "kap-vorn",
                             "00FF",
                             "ABC",
                             "disappear",
                             "near",
                             "announce-foreign",
                             "config-update",
                             "",
                             "eth0",
                             "IEPCSI_PORT_STATUS_IND",
                             "PMI_ENABLE_PORT_VLAN_REQ",
                             "EMI_ADD_ENDPOINT_REQ",
                             "drop",
                             "unsolicited",
                             "FMI_ADD_RULE_REQ"};

class Node
{
public:
    explicit Node(Input input) : input_(input), config_(two_ports())
    {
        services_[0] = std::make_unique<iepcsi_service>(config_, outlets_[0]);
        services_[1] = std::make_unique<pmi_service>(config_, outlets_[1]);
        services_[2] = std::make_unique<emi_service>(config_, outlets_[2]);
        services_[3] = std::make_unique<fmi_service>(config_, outlets_[3]);
        services_[4] = std::make_unique<aasi_service>(config_, outlets_[4], [](bool) { return 0; });
    }

    void play()
    {
        while (input_.more()) {
            step();
        }
        for (const auto &one : services_) {
            require(one->show().is_object(), "what is shown is an object");
        }
    }

private:
    void step()
    {
        const uint8_t what = input_.byte();
        const size_t which = what % SERVICES;
        service &one = *services_[which];
        const auto client = static_cast<mailbox>(1 + input_.pick(CLIENTS));
        switch (what / SERVICES % 8) {
        case 0:
            return one.client_gone(client);
        case 1:
            now_ += input_.half();
            return one.tick(now_);
        case 2:
            return command(one, words_of());
        case 3:
            return command(one, json_of());
        case 4:
            return interfaces();
        default:
            return request(which, client);
        }
    }

    void request(size_t which, mailbox client)
    {
        const auto number = static_cast<uint32_t>(FIRST_NUMBERS[which] + input_.pick(NUMBERS[which]));
        const uint8_t how = input_.byte();
        message_writer message;
        message.host_word(number);
        if ((how & 0x80) == 0) {
            message.word(how).word(outlets_[which].connection[client]);
        }
        message.append(input_.bytes(input_.byte()));
        services_[which]->receive(client, message.take(), now_);
    }

    bytes words_of()
    {
        json list = json::array();
        const size_t count = input_.pick(7);
        for (size_t i = 0; i < count; ++i) {
            const uint8_t which = input_.byte();
            list.push_back(which < 0xF0 ? WORDS[which % std::size(WORDS)] : input_.text(which & 0xF));
        }
        return control_message(CONTROL_REQUEST, 7, {{"command", list}});
    }

    bytes json_of()
    {
        message_writer message;
        return message.host_word(CONTROL_REQUEST).append(input_.bytes(input_.half() % 1024)).take();
    }

    static void command(service &one, const bytes &message)
    {
        const bytes reply = control_answer(one, message);
        const json content = control_content(reply);
        require(content.is_object() && content.contains("ok"), "a reply is an object that says whether it went well");
    }

    void interfaces()
    {
        interface_table table;
        const size_t count = input_.pick(4);
        for (size_t i = 0; i < count; ++i) {
            interface_facts facts;
            const uint8_t how = input_.byte();
            facts.name = (how & 1) != 0 ? "IDLA1" : (how & 2) != 0 ? "TNA" : input_.text(how >> 4);
            facts.up = (how & 4) != 0;
            facts.carrier = (how & 8) != 0;
            facts.parent = static_cast<int>(input_.pick(4));
            facts.is_vlan = facts.parent != 0;
            facts.vlan_id = input_.half();
            table[static_cast<int>(i) + 1] = facts;
        }
        static_cast<iepcsi_service &>(*services_[0]).interfaces_changed("near", table);
    }

    Input input_;
    node_config config_;
    Outlet outlets_[SERVICES];
    std::unique_ptr<service> services_[SERVICES];
    millis now_ = 1000;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Node(Input(data, size)).play();
    return 0;
}
