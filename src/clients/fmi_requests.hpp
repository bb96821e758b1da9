// The requests to the flow manager; each is sent and its answer waited for. What a port has is kept in fmi_acl.cpp.
// Nobody else includes this but the tests.
#pragma once

#include "client_framework.hpp"
#include "fmi_messages.hpp"

// No rule, no action.
inline constexpr uint32_t FMI_NONE = 0xFFFFFFFF;

// Each waits for its answer. The rule id, or FMI_NONE.
uint32_t fmi_append_static_rule(const char *port, uint32_t type);
void fmi_remove_static_rule(const char *port, uint32_t id);
// The MACs, then the one ethertype.
uint32_t fmi_append_dynamic_rule(const char *port, const mac_address *macs, uint32_t count, uint16_t ether_type,
                                 uint32_t policer_id);
void fmi_remove_dynamic_rule(const char *port, uint32_t id);
bool fmi_request_default_action(const char *port, uint32_t action);

struct fmi_policer_rates {
    uint32_t commited_rate;
    uint32_t commited_max_burst_size;
};

// In two steps: the policer is remembered between them. Returns the request's procedure_ref.
uint32_t fmi_send_create_policer(const char *port, const fmi_policer_rates &rates);
// True when it was confirmed; then *id is its id.
bool fmi_wait_create_policer(uint32_t *id);

// An answer, decoded. What it does not have is 0 or empty.
struct fmi_answer {
    client_input in;
    uint32_t second; // the field behind in.word
    uint32_t id;
    char port_name[FMI_PORT_NAME_LEN + 1];
    char error_text[FMI_ERROR_TEXT_LEN + 1];
};

// How an answer is laid out: the smallest size, and where its fields stand; 0: it has none.
struct fmi_answer_layout {
    uint32_t msgno;
    size_t min_size;
    size_t id;
    size_t port_name;
    size_t error_text;
    void (*trace)(const fmi_answer &answer);
};

struct fmi_exchange {
    fmi_answer_layout confirm;
    fmi_answer_layout reject;
};

// True when `answer` confirms the request sent last; then *id is what the confirm carries.
bool fmi_take_answer(const fmi_exchange &exchange, const itc_msg *answer, uint32_t *id);
