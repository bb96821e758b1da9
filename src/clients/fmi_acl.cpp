// What each port has at the flow manager, and the operations that bring it to what the manager wants: rules, the
// default action, policers. It owns the two lists of records; it talks to the flow manager only through
// fmi_requests.cpp.
#include "fmi_acl.hpp"

#include <cstdlib>

#include "fmi_messages.hpp"
#include "fmi_record.hpp"
#include "fmi_requests.hpp"
#include "vorn_trace.hpp"

namespace
{

constexpr uint16_t ETHER_TYPE_EMCA = 0xEBC0;
constexpr uint16_t ETHER_TYPE_SUPERVISION = 0xAEFE;
constexpr uint16_t ETHER_TYPE_PTP = 0x88F7;
constexpr uint16_t ETHER_TYPE_LLDP = 0x88CC;

constexpr mac_address PTP_MACS[] = {{{0x01, 0x1B, 0x19, 0x00, 0x00, 0x00}}, {{0x01, 0x80, 0xC2, 0x00, 0x00, 0x0E}}};
constexpr mac_address LLDP_MACS[] = {{{0x01, 0x80, 0xC2, 0x00, 0x00, 0x0E}}};

enum policer_type : uint32_t {
    POLICER_SUPERVISION = 0,
    POLICER_PTP = 1,
    POLICER_LLDP = 2,
    POLICER_TYPES = 3,
};

constexpr fmi_policer_rates RATES[POLICER_TYPES] = {{10000000, 262144}, {5000000, 0}, {1000000, 0}};

struct port_acl {
    char port_name[FMI_PORT_NAME_LEN];
    uint32_t default_action;
    uint32_t static_rule_id;
    uint32_t static_rule_type;
    uint32_t supervision_rule_id;
    uint32_t emca_rule_id;
    uint32_t ptp_rule_id;  // begins as 0, not FMI_NONE: a port that is forgotten has rule 0 removed
    uint32_t lldp_rule_id; // as ptp_rule_id
    port_acl *next;
};

struct policer {
    char port_name[FMI_PORT_NAME_LEN];
    uint32_t id; // 0 until confirmed
    uint32_t type;
    uint32_t procedure_ref; // of the request
    policer *next;
};

port_acl *acls = nullptr;    // newest first
policer *policers = nullptr; // newest first

bool is_initiated(void (*complain)(const char *state))
{
    const uint32_t state = fmi_client_state();
    if (state != FMI_CLIENT_INITIATED) {
        complain(fmi_client_state_to_string(state));
    }
    return state == FMI_CLIENT_INITIATED;
}

port_acl *find_acl(const char *port)
{
    port_acl *acl = acls;
    while (acl != nullptr && strcmp(acl->port_name, port) != 0) {
        acl = acl->next;
    }
    return acl;
}

// A record that knows of nothing yet, at the head of the list; null when memory is out.
port_acl *add_acl(const char *port)
{
    auto *acl = static_cast<port_acl *>(calloc(1, sizeof(port_acl)));
    if (acl == nullptr) {
        VORN_TRACE(TRACE_ERROR, "Out of memory");
        return nullptr;
    }
    client_copy_text(acl->port_name, sizeof acl->port_name, port, FMI_PORT_NAME_LEN);
    acl->default_action = FMI_NONE;
    acl->static_rule_id = FMI_NONE;
    acl->static_rule_type = FMI_NONE;
    acl->supervision_rule_id = FMI_NONE;
    acl->emca_rule_id = FMI_NONE;
    acl->next = acls;
    acls = acl;
    return acl;
}

// Of several records the oldest counts.
uint32_t find_policer_id(const char *port, uint32_t type)
{
    uint32_t id = 0;
    for (const policer *p = policers; p != nullptr; p = p->next) {
        if (p->type == type && strcmp(p->port_name, port) == 0) {
            id = p->id;
        }
    }
    return id;
}

bool has_confirmed_policer(const char *port, uint32_t type)
{
    for (const policer *p = policers; p != nullptr; p = p->next) {
        if (p->type == type && p->id != 0 && strcmp(p->port_name, port) == 0) {
            return true;
        }
    }
    return false;
}

// The new rule is in place before the old one goes. Its id is kept before it is looked at: when the append fails the
// old rule is neither removed nor remembered.
bool replace_dynamic_rule(const char *port, uint32_t *kept_id, uint32_t new_id)
{
    const uint32_t old_id = *kept_id;
    *kept_id = new_id;
    if (new_id == FMI_NONE) {
        return false;
    }
    if (old_id != FMI_NONE) {
        fmi_remove_dynamic_rule(port, old_id);
    }
    return true;
}

// A port's first rule makes its record. Without memory for it the rule stays, unremembered.
bool keep_first_dynamic_rule(const char *port, uint32_t port_acl::*kept_id, uint32_t new_id)
{
    if (new_id == FMI_NONE) {
        return false;
    }
    port_acl *acl = add_acl(port);
    if (acl != nullptr) {
        acl->*kept_id = new_id;
    }
    return true;
}

void remove_if_kept(const char *port, uint32_t *kept_id)
{
    if (*kept_id != FMI_NONE) {
        fmi_remove_dynamic_rule(port, *kept_id);
        *kept_id = FMI_NONE;
    }
}

void remove_all_rules(port_acl *acl)
{
    if (acl->static_rule_id != FMI_NONE) {
        fmi_remove_static_rule(acl->port_name, acl->static_rule_id);
        acl->static_rule_id = FMI_NONE;
    }
    remove_if_kept(acl->port_name, &acl->supervision_rule_id);
    remove_if_kept(acl->port_name, &acl->emca_rule_id);
    remove_if_kept(acl->port_name, &acl->ptp_rule_id);
    remove_if_kept(acl->port_name, &acl->lldp_rule_id);
}

bool add_policer(const char *port, uint32_t type, uint32_t procedure_ref)
{
    auto *p = static_cast<policer *>(calloc(1, sizeof(policer)));
    if (p == nullptr) {
        VORN_TRACE(TRACE_ERROR, "Out of memory.");
        return false;
    }
    client_copy_text(p->port_name, sizeof p->port_name, port, FMI_PORT_NAME_LEN);
    p->type = type;
    p->procedure_ref = procedure_ref;
    p->next = policers;
    policers = p;
    return true;
}

} // namespace

void fmi_acl_free()
{
    while (acls != nullptr) {
        port_acl *acl = acls;
        acls = acl->next;
        free(acl);
    }
    while (policers != nullptr) {
        policer *p = policers;
        policers = p->next;
        free(p);
    }
}

bool fmi_set_emca_acl_rule(const char *port, const mac_address *macs, uint32_t count)
{
    if (!is_initiated(
            CLIENT_NOTICE(TRACE_ERROR, "fmi_set_emca_acl_rule called but fmi_client is in wrong state, state_=%s"))) {
        return false;
    }
    port_acl *acl = find_acl(port);
    if (acl == nullptr) {
        return count != 0 && keep_first_dynamic_rule(port, &port_acl::emca_rule_id,
                                                     fmi_append_dynamic_rule(port, macs, count, ETHER_TYPE_EMCA, 0));
    }
    if (count == 0 && acl->emca_rule_id != FMI_NONE) {
        remove_if_kept(port, &acl->emca_rule_id);
        return true;
    }
    return replace_dynamic_rule(port, &acl->emca_rule_id,
                                fmi_append_dynamic_rule(port, macs, count, ETHER_TYPE_EMCA, 0));
}

bool fmi_set_supervision_acl_rule(const char *port, const mac_address *macs, uint32_t count)
{
    if (!is_initiated(CLIENT_NOTICE(
            TRACE_ERROR, "fmi_set_supervision_acl_rule called but fmi_client is in wrong state, state_=%s"))) {
        return false;
    }
    port_acl *acl = find_acl(port);
    const uint32_t new_id =
        fmi_append_dynamic_rule(port, macs, count, ETHER_TYPE_SUPERVISION, find_policer_id(port, POLICER_SUPERVISION));
    if (acl == nullptr) {
        return keep_first_dynamic_rule(port, &port_acl::supervision_rule_id, new_id);
    }
    return replace_dynamic_rule(port, &acl->supervision_rule_id, new_id);
}

bool fmi_set_static_rule(const char *port, uint32_t type)
{
    if (!is_initiated(
            CLIENT_NOTICE(TRACE_ERROR, "fmi_set_static_rule called but fmi_client is in wrong state, state_=%s"))) {
        return false;
    }
    port_acl *acl = find_acl(port);
    if (acl == nullptr) {
        return false;
    }
    if (acl->static_rule_type == type && acl->static_rule_id != FMI_NONE) {
        return true;
    }
    acl->static_rule_type = type;
    if (acl->static_rule_id != FMI_NONE) {
        fmi_remove_static_rule(port, acl->static_rule_id);
    }
    acl->static_rule_id = fmi_append_static_rule(port, type);
    return acl->static_rule_id != FMI_NONE;
}

bool fmi_set_default_action(const char *port, uint32_t action)
{
    if (!is_initiated(
            CLIENT_NOTICE(TRACE_ERROR, "fmi_set_default_action called but fmi_client is in wrong state, state_=%s"))) {
        return false;
    }
    port_acl *acl = find_acl(port);
    if (acl != nullptr) {
        // A refusal leaves the port with the action it has, which is no failure to the caller.
        if (acl->default_action != action && fmi_request_default_action(port, action)) {
            acl->default_action = action;
        }
        return true;
    }
    if (!fmi_request_default_action(port, action)) {
        return false;
    }
    acl = add_acl(port);
    if (acl == nullptr) {
        return false;
    }
    acl->default_action = action;
    return true;
}

bool fmi_set_ptp_macs(const char *port)
{
    if (!is_initiated(
            CLIENT_NOTICE(TRACE_ERROR, "fmi_set_ptp_macs called but fmi_client is in wrong state, state_=%s"))) {
        return false;
    }
    port_acl *acl = find_acl(port);
    if (acl == nullptr) {
        return false;
    }
    acl->ptp_rule_id = fmi_append_dynamic_rule(port, PTP_MACS, 2, ETHER_TYPE_PTP, find_policer_id(port, POLICER_PTP));
    return acl->ptp_rule_id != FMI_NONE;
}

bool fmi_set_lldp_macs(const char *port)
{
    if (!is_initiated(
            CLIENT_NOTICE(TRACE_ERROR, "fmi_set_lldp_macs called but fmi_client is in wrong state, state_=%s"))) {
        return false;
    }
    port_acl *acl = find_acl(port);
    if (acl == nullptr) {
        return false;
    }
    acl->lldp_rule_id =
        fmi_append_dynamic_rule(port, LLDP_MACS, 1, ETHER_TYPE_LLDP, find_policer_id(port, POLICER_LLDP));
    return acl->lldp_rule_id != FMI_NONE;
}

void fmi_create_policer(uint32_t type, const char *port)
{
    if (!is_initiated(
            CLIENT_NOTICE(TRACE_ERROR, "fmi_create_policer called but fmi_client is in wrong state, state_=%s"))) {
        return;
    }
    if (has_confirmed_policer(port, type)) {
        VORN_TRACE(TRACE_ERROR,
                   "Creating policer(type %u) on port %s that already have policer. Returning without action", type,
                   port);
        return;
    }
    if (type >= POLICER_TYPES) {
        VORN_TRACE(TRACE_ERROR, "Unknown policer type in create policer");
        return;
    }
    const uint32_t procedure_ref = fmi_send_create_policer(port, RATES[type]);
    uint32_t id = 0;
    if (add_policer(port, type, procedure_ref) && fmi_wait_create_policer(&id)) {
        fmi_policer_confirmed(procedure_ref, id, port);
    }
}

void fmi_policer_confirmed(uint32_t procedure_ref, uint32_t id, const char *port)
{
    for (policer *p = policers; p != nullptr; p = p->next) {
        if (p->procedure_ref == procedure_ref) {
            p->id = id;
            return;
        }
    }
    VORN_TRACE(TRACE_ERROR, "Policer on port %s not found", port);
}

void fmi_remove_acl_from_port(const char *port)
{
    if (!is_initiated(CLIENT_NOTICE(TRACE_ERROR,
                                    "fmi_remove_acl_from_port called but fmi_client is in wrong state, state_=%s"))) {
        return;
    }
    port_acl **slot = &acls;
    while (*slot != nullptr) {
        port_acl *acl = *slot;
        if (strcmp(acl->port_name, port) != 0) {
            slot = &acl->next;
            continue;
        }
        remove_all_rules(acl);
        *slot = acl->next;
        free(acl);
    }
}
