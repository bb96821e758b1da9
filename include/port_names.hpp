// The ports that a node can have: one row for each, with all of its names. Whoever needs a name takes it from here; a
// port is added by adding its row.
#pragma once

struct port_names {
    const char *iemli;  // as people and the clients of the daemon call it
    const char *iepcsi; // as the port control server calls it
    const char *fmi;    // as the flow manager and the endpoint manager call it
    const char *pmi;    // as the port management server calls it; null: it opens no VLANs there
};

inline constexpr port_names PORT_NAMES[] = {
    {"IDL_A1", "IDLA1", "DiPort_A1", "IDLA1"}, {"IDL_A2", "IDLA2", "DiPort_A2", "IDLA2"},
    {"IDL_B1", "IDLB1", "DiPort_B1", "IDLB1"}, {"IDL_B2", "IDLB2", "DiPort_B2", "IDLB2"},
    {"TN_A", "TNA", "TNA", nullptr},           {"TN_B", "TNB", "TNB", nullptr},
    {"TN_C", "TNC", "TNC", nullptr},           {"TN_D", "TND", "TND", nullptr},
};
