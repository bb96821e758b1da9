// Whether a request is acceptable: decisions over the request and the links that exist. Answers nobody and changes
// nothing. Each stops at the first fault and gives its IEMLI_REJ_* reason.
#pragma once

#include "iemli_messages.hpp"
#include "manager/table/link_table.hpp"

// No fault. Not 0: that is a reason of its own.
inline constexpr uint32_t IEMLI_NO_REJECT = 0xFFFFFFFF;

// The name of a port out of a message, which need not be terminated there.
struct iemli_port_name {
    char text[PORT_NAME_LEN + 1];
};

// At most PORT_NAME_LEN characters of the field.
iemli_port_name iemli_port_name_of(const IemliLinkData *link);

uint32_t iemli_check_create(const IemliLinkData *link);
// New app links for an existing link, whoever owns it.
uint32_t iemli_check_update(const iml_link *link, uint32_t count, const IemliAppLink *app_links);
// `link` may be null: unknown.
uint32_t iemli_check_enable_rtt(const iml_link *link, uint32_t server_conn_ref, const rtt_settings &settings);
