// The Ethernet port control server (iepcsi.hpp).
#include "iepcsi.hpp"

#include "clients/iepcsi_messages.hpp"
#include "ns.h"

#include <algorithm>

namespace kap_node
{

namespace
{

constexpr size_t NAME_LEN = 16;
constexpr size_t NAMESPACE_LEN = 256;
constexpr uint32_t VLAN_MOST = 4094;

constexpr request_kind REQUESTS[] = {
    {IEPCSI_INIT_SERVICE_REQ, "IEPCSI_INIT_SERVICE_REQ", IEPCSI_INIT_SERVICE_CFM, IEPCSI_INIT_SERVICE_REJ,
     sizeof(iepcsi_init_service_req)},
    {IEPCSI_GET_ETH_PORT_SUPPORT_REQ, "IEPCSI_GET_ETH_PORT_SUPPORT_REQ", IEPCSI_GET_ETH_PORT_SUPPORT_CFM,
     IEPCSI_GET_ETH_PORT_SUPPORT_REJ, sizeof(client_plain_msg)},
    {IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ, "IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ", IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM,
     IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ, sizeof(iepcsi_subscribe_req)},
    {IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REQ, "IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REQ",
     IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_CFM, IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REJ, sizeof(iepcsi_subscribe_req)},
};

// A string of variable length is never shorter than its terminator.
constexpr sent_kind SENT[] = {
    {IEPCSI_INIT_SERVICE_CFM, "IEPCSI_INIT_SERVICE_CFM", sizeof(client_conn_establish_cfm)},
    {IEPCSI_INIT_SERVICE_REJ, "IEPCSI_INIT_SERVICE_REJ", sizeof(client_rej)},
    {IEPCSI_TERM_SERVICE_CFM, "IEPCSI_TERM_SERVICE_CFM", sizeof(client_plain_msg)},
    {IEPCSI_GET_ETH_PORT_SUPPORT_CFM, "IEPCSI_GET_ETH_PORT_SUPPORT_CFM", sizeof(iepcsi_get_eth_port_support_cfm)},
    {IEPCSI_GET_ETH_PORT_SUPPORT_REJ, "IEPCSI_GET_ETH_PORT_SUPPORT_REJ", sizeof(client_rej)},
    {IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM, "IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM", sizeof(iepcsi_subscribe_cfm)},
    {IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ, "IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ", sizeof(client_rej)},
    {IEPCSI_ETH_PORT_STATUS_IND, "IEPCSI_ETH_PORT_STATUS_IND", sizeof(iepcsi_eth_port_status_ind) + 1},
    {IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_CFM, "IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_CFM", sizeof(iepcsi_subscribe_cfm)},
    {IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REJ, "IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REJ", sizeof(client_rej)},
    {IEPCSI_PORT_VLAN_STATUS_IND, "IEPCSI_PORT_VLAN_STATUS_IND", sizeof(iepcsi_port_vlan_status_ind) + 1},
};

constexpr reason_name REASONS[] = {
#define X(value, name) {value, #name},
    IEPCSI_REJECT_REASONS(X)
#undef X
};

constexpr protocol IEPCSI = {
    .service = "iepcsi",
    .mailbox_name = IEPCSI_SERVER_NAME,
    .requests = REQUESTS,
    .sent = SENT,
    .reasons = REASONS,
    .reason = {.too_short = IEPCSI_REJ_INTERNAL_REASON,
               .bad_version = IEPCSI_REJ_SERVICE_INVALID_PV,
               .unknown_connection = IEPCSI_REJ_INTERNAL_REASON,
               .too_many_clients = IEPCSI_REJ_INTERNAL_REASON},
    .establish_req = IEPCSI_INIT_SERVICE_REQ,
    .capability_req = 0,
    .versions_at_fixed_place = 3,
    .capabilities = {},
    .capability_size = 4,
};

bool concerns(const std::set<std::string> &names, const std::string &port)
{
    return names.contains(port) || names.contains("");
}

} // namespace

iepcsi_service::iepcsi_service(const node_config &config, outlet &out) : service(IEPCSI, out, config.max_clients)
{
    for (const port_config &wanted : config.ports) {
        port entry;
        entry.config = wanted;
        entry.unlocked = wanted.unlocked;
        ports_.push_back(std::move(entry));
    }
}

std::set<std::string> iepcsi_service::name_spaces() const
{
    std::set<std::string> names;
    for (const port &entry : ports_) {
        names.insert(entry.config.name_space);
    }
    return names;
}

iepcsi_service::port *iepcsi_service::find_port(const std::string &name)
{
    const auto found =
        std::find_if(ports_.begin(), ports_.end(), [&](const port &entry) { return entry.config.name == name; });
    return found == ports_.end() ? nullptr : &*found;
}

// People may use the name of the configuration as well.
iepcsi_service::port &iepcsi_service::port_of_command(const std::string &name)
{
    port *entry = find_port(name);
    for (port &each : ports_) {
        entry = entry == nullptr && each.config.people_name == name ? &each : entry;
    }
    if (entry == nullptr || name.empty()) {
        throw command_error("no port of the name " + name);
    }
    return *entry;
}

// ---- Who is ready
// ----------------------------------------------------------------------------------------------------

// The registry has no mailbox; nor has whoever sends as nobody, which the registry's policy keeps out.
void iepcsi_service::receive(mailbox sender, std::span<const uint8_t> data, millis now)
{
    now_ = now;
    const uint32_t number = message_view(data).number();
    if (waits_ && number >= NS_SUBSCRIBE_RSP && number <= NS_SERVICE_REMOVED_IND) {
        note_publication(data, number == NS_SERVICE_ADDED_IND);
        return;
    }
    service::receive(sender, data, now);
}

void iepcsi_service::note_publication(std::span<const uint8_t> data, bool added)
{
    ns_service_ind news{};
    if (data.size() < sizeof news) {
        return; // the answer to the subscription
    }
    memcpy(&news, data.data(), sizeof news);
    if (added) {
        ready_.insert(news.mbox);
        release(news.mbox);
    } else {
        ready_.erase(news.mbox);
    }
}

void iepcsi_service::release(mailbox address)
{
    const auto known = clients().find(address);
    if (held_.erase(address) == 0 || known == clients().end()) {
        return;
    }
    for (const port &entry : ports_) {
        if (entry.unlocked && concerns(subscribers_[address].status, entry.config.name)) {
            send_status(known->second, entry);
        }
    }
}

void iepcsi_service::tick(millis now)
{
    service::tick(now);
    const auto held = held_;
    for (const auto &[address, until] : held) {
        if (until <= now) {
            release(address);
        }
    }
}

std::optional<millis> iepcsi_service::next_deadline() const
{
    std::optional<millis> next = service::next_deadline();
    for (const auto &[address, until] : held_) {
        next = std::min(next.value_or(until), until);
    }
    return next;
}

// ---- Requests ------------------------------------------------------------------------------------------------------

verdict iepcsi_service::perform(const request_kind &kind, client &from, const message_view &message)
{
    return kind.number == IEPCSI_GET_ETH_PORT_SUPPORT_REQ ? list_ports() : subscribe(kind, from, message);
}

verdict iepcsi_service::list_ports() const
{
    message_writer list;
    list.word(static_cast<uint32_t>(ports_.size()));
    for (const port &entry : ports_) {
        list.word(entry.config.capability)
            .zeros(sizeof(iepcsi_port_entry::unread0))
            .address(entry.address)
            .text(entry.config.name, NAME_LEN)
            .text(entry.config.interface, NAME_LEN)
            .zeros(sizeof(iepcsi_port_entry::unread1));
    }
    return confirmed(list.take());
}

verdict iepcsi_service::subscribe(const request_kind &kind, const client &from, const message_view &message)
{
    const auto name = message.text(offsetof(iepcsi_subscribe_req, port_name), NAME_LEN);
    if (!name || (!name->empty() && find_port(*name) == nullptr)) {
        return rejected(IEPCSI_REJ_INVALID_PORTNAME);
    }
    if (message.word(offsetof(iepcsi_subscribe_req, port_role)) != IEPCSI_PORT_ROLE_LINK) {
        return rejected(IEPCSI_REJ_INVALID_PORTROLE);
    }
    subscriptions &mine = subscribers_[from.address];
    (kind.number == IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ ? mine.status : mine.vlans).insert(*name);
    return confirmed(message_writer().word(++last_subscribe_ref_).take());
}

// A new subscriber hears at once how things stand; the daemon that is not ready, but for unlocked ports.
void iepcsi_service::confirmed_to(const request_kind &kind, client &to, const message_view &message)
{
    if (waits_ && kind.number == IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ && !ready_.contains(to.address) &&
        out().locate(DAEMON_MAILBOX) == to.address) {
        held_.try_emplace(to.address, now_ + DAEMON_BOUND_MS);
    }
    const std::string name = message.text(offsetof(iepcsi_subscribe_req, port_name), NAME_LEN).value_or("");
    for (const port &entry : ports_) {
        if (!name.empty() && name != entry.config.name) {
            continue;
        }
        if (kind.number == IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ) {
            send_status(to, entry);
        } else if (kind.number == IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REQ) {
            for (const auto &[vlan_id, about] : entry.vlans) {
                ++vlan_indications_;
                send_to(to, IEPCSI_PORT_VLAN_STATUS_IND, 0, vlan_fields(entry, vlan_id, about, IEPCSI_VLAN_ADDED));
            }
        }
    }
}

void iepcsi_service::connection_reset(mailbox address)
{
    subscribers_.erase(address);
    held_.erase(address);
}

// ---- What the kernel says ------------------------------------------------------------------------------------------

void iepcsi_service::interfaces_changed(const std::string &name_space, const interface_table &interfaces)
{
    for (port &entry : ports_) {
        if (entry.config.name_space != name_space) {
            continue;
        }
        const auto own = std::find_if(interfaces.begin(), interfaces.end(), [&](const auto &indexed) {
            return indexed.second.name == entry.config.interface;
        });
        vlan_map found;
        if (own != interfaces.end() && entry.config.vlan_interfaces) {
            for (const auto &[index, facts] : interfaces) {
                if (facts.is_vlan && facts.parent == own->first) {
                    found[facts.vlan_id] = vlan{facts.name, entry.config.reported_name_space};
                }
            }
        }
        set_link(entry, own == interfaces.end() ? nullptr : &own->second);
        set_kernel_vlans(entry, found);
    }
}

void iepcsi_service::set_link(port &entry, const interface_facts *facts)
{
    const bool was_operational = entry.operational();
    entry.present = facts != nullptr;
    entry.has_link = facts != nullptr && facts->up && facts->carrier;
    if (facts != nullptr) {
        entry.address = facts->address;
    }
    if (entry.operational() != was_operational) {
        report_status(entry);
    }
}

void iepcsi_service::set_kernel_vlans(port &entry, const vlan_map &found)
{
    const vlan_map before = entry.vlans;
    for (const auto &[vlan_id, about] : before) {
        const auto still = found.find(vlan_id);
        if (about.from_kernel && (still == found.end() || still->second != about)) {
            remove_vlan(entry, vlan_id);
        }
    }
    for (const auto &[vlan_id, about] : found) {
        if (!entry.vlans.contains(vlan_id) && !entry.withheld.contains(vlan_id)) {
            add_vlan(entry, vlan_id, about);
        }
    }
    std::erase_if(entry.withheld, [&](uint16_t vlan_id) { return !found.contains(vlan_id); });
}

void iepcsi_service::add_vlan(port &entry, uint16_t vlan_id, const vlan &added)
{
    entry.vlans[vlan_id] = added;
    report_vlan(entry, vlan_id, added, IEPCSI_VLAN_ADDED);
}

void iepcsi_service::remove_vlan(port &entry, uint16_t vlan_id)
{
    const vlan gone = entry.vlans[vlan_id];
    entry.vlans.erase(vlan_id);
    report_vlan(entry, vlan_id, gone, IEPCSI_VLAN_REMOVED);
}

// ---- Indications ---------------------------------------------------------------------------------------------------

void iepcsi_service::report_status(const port &entry)
{
    for (const auto &[address, known] : clients()) {
        const auto wanted = subscribers_.find(address);
        if (wanted != subscribers_.end() && concerns(wanted->second.status, entry.config.name)) {
            send_status(known, entry);
        }
    }
}

// What is left out here follows when the client may hear it.
void iepcsi_service::send_status(const client &to, const port &entry)
{
    if (!entry.unlocked || !held_.contains(to.address)) {
        ++status_indications_;
        send_to(to, IEPCSI_ETH_PORT_STATUS_IND, 0, status_fields(entry));
    }
}

void iepcsi_service::report_vlan(const port &entry, uint16_t vlan_id, const vlan &about, uint32_t action)
{
    for (const auto &[address, known] : clients()) {
        const auto wanted = subscribers_.find(address);
        if (wanted != subscribers_.end() && concerns(wanted->second.vlans, entry.config.name)) {
            ++vlan_indications_;
            send_to(known, IEPCSI_PORT_VLAN_STATUS_IND, 0, vlan_fields(entry, vlan_id, about, action));
        }
    }
}

bytes iepcsi_service::status_fields(const port &entry)
{
    return message_writer()
        .word(entry.unlocked ? 1 : 0)
        .word(entry.operational() ? 1 : 0)
        .text(entry.config.name, NAME_LEN)
        .open_text(entry.config.reported_name_space, NAMESPACE_LEN)
        .take();
}

bytes iepcsi_service::vlan_fields(const port &entry, uint16_t vlan_id, const vlan &about, uint32_t action)
{
    return message_writer()
        .half(vlan_id)
        .zeros(sizeof(iepcsi_port_vlan_status_ind::unread))
        .word(action)
        .word(IEPCSI_PORT_ROLE_LINK)
        .text(about.interface, NAME_LEN)
        .text(entry.config.name, NAME_LEN)
        .open_text(about.name_space, NAMESPACE_LEN)
        .take();
}

// ---- Commands ------------------------------------------------------------------------------------------------------

std::optional<json> iepcsi_service::own_command(const arguments &words)
{
    if (words.empty()) {
        return std::nullopt;
    }
    if (words[0] == "lock" || words[0] == "unlock") {
        expect_words(words, 2, 2, "lock PORT | unlock PORT");
        set_unlocked(port_of_command(words[1]), words[0] == "unlock");
        return json(nullptr);
    }
    if (words[0] == "vlan-add" || words[0] == "vlan-remove") {
        return command_vlan(words);
    }
    return std::nullopt;
}

void iepcsi_service::set_unlocked(port &entry, bool unlocked)
{
    if (entry.unlocked != unlocked) {
        entry.unlocked = unlocked;
        report_status(entry);
    }
}

// The indication goes out whatever is on the port already: a client has to bear with a VLAN that is added twice.
json iepcsi_service::command_vlan(const arguments &words)
{
    const bool add = words[0] == "vlan-add";
    expect_words(words, add ? 5 : 3, add ? 5 : 3, "vlan-add PORT VLAN INTERFACE NAMESPACE | vlan-remove PORT VLAN");
    port &entry = port_of_command(words[1]);
    const auto vlan_id = static_cast<uint16_t>(parse_number(words[2], VLAN_MOST, "VLAN"));
    if (add) {
        entry.withheld.erase(vlan_id);
        add_vlan(entry, vlan_id, vlan{words[3], words[4], false});
    } else {
        const auto found = entry.vlans.find(vlan_id);
        if (found != entry.vlans.end() && found->second.from_kernel) {
            entry.withheld.insert(vlan_id);
        }
        remove_vlan(entry, vlan_id);
    }
    return nullptr;
}

json iepcsi_service::state() const
{
    auto list = json::array();
    for (const port &entry : ports_) {
        auto vlans = json::array();
        for (const auto &[vlan_id, about] : entry.vlans) {
            vlans.push_back({{"vlan_id", vlan_id},
                             {"interface", about.interface},
                             {"namespace", about.name_space},
                             {"from_kernel", about.from_kernel}});
        }
        list.push_back({{"name", entry.config.name},
                        {"interface", entry.config.interface},
                        {"namespace", entry.config.name_space},
                        {"reported_namespace", entry.config.reported_name_space},
                        {"capability", entry.config.capability},
                        {"present", entry.present},
                        {"mac", mac_text(entry.address)},
                        {"adm_state", entry.unlocked ? 1 : 0},
                        {"oper_state", entry.operational() ? 1 : 0},
                        {"vlans", std::move(vlans)}});
    }
    auto listeners = json::array();
    for (const auto &[address, wanted] : subscribers_) {
        listeners.push_back({{"mailbox", address}, {"status", wanted.status}, {"vlans", wanted.vlans}});
    }
    return {{"ports", std::move(list)},
            {"subscribers", std::move(listeners)},
            {"indications", {{"status", status_indications_}, {"vlan", vlan_indications_}}}};
}

} // namespace kap_node
