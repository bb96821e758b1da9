// The client of the flow manager: its connection to the server. Which rules, default actions and policers the ports
// have is in fmi_acl.hpp.
#pragma once

#include "fmi_acl.hpp"
#include "fmi_messages.hpp"
#include "fmi_record.hpp"

void fmi_client_init(client_event_handler handler);

// True when the message is one of this client's. Answers to access-control requests are not: the wait takes them.
bool fmi_client_dispatch(const itc_msg *msg);

// Back to how the process starts; frees every record and tells nobody.
void fmi_client_forget_all();
