// The client of the automation agent, which keeps a transport path with latency figures for every link. Path messages
// are sent and forgotten: their confirms are only traced. Whether the agent is up is the caller's business. That the
// agent wants to be told of every path again is raised as a PATHS_WANTED_EVENT.
#pragma once

#include "aasi_messages.hpp"

enum aasi_client_state_value : uint32_t {
    AASI_CLIENT_INIT = 0,
    AASI_CLIENT_INITIATING = 1,
    AASI_CLIENT_INITIATED = 2,
    AASI_CLIENT_FAULTY = 3,
};

void aasi_client_init(client_event_handler handler);

// True when the message is one of this client's.
bool aasi_client_dispatch(const itc_msg *msg);

// What the agent is told of a link's path.
struct aasi_path {
    uint32_t link_ref;
    mac_address near_end_cpm_mac; // the port's own
    const IemliLinkData *data;
};

void aasi_send_path_create(const aasi_path &path);
void aasi_send_path_update(const aasi_path &path);
void aasi_send_path_delete(const aasi_path &path);
// Latencies in nanoseconds; all 0 when only the status changed.
void aasi_send_path_info(uint32_t link_ref, uint32_t min_latency, uint32_t max_latency, uint32_t avg_latency,
                         uint32_t status);

uint32_t aasi_client_state();
const char *aasi_client_state_to_string(uint32_t state);

// Back to how the process starts; tells nobody.
void aasi_client_forget_all();
