-- Wireshark's dissector for what kap-vorn says and hears: the ITC messages of a capture made with
-- "vornctl capture --messages" (link type USER0), of IEMLI, the lower-layer protocols, the name service, the link list and
-- the supervision library; and, in supervision frames, what kap-vorn puts into the dummy bytes of its pings.
--
-- Fields are named kap.PROTOCOL.FIELD, each field as in the structure that the message has. A message that ends before
-- its fields do is marked as malformed (kap.itc.short); one that the capture has cut is not (kap.itc.cut).
--
-- The tables between the two marks are written by scripts/dissector; the rest is by hand.

-- >>> written by scripts/dissector
local PROTOCOLS = {
  iemli = "IEMLI",
  iepcsi = "IEPCSI",
  pmi = "PMI",
  emi = "EMI",
  fmi = "FMI",
  aasi = "AUTOMATIONAGENTSI",
  shell = "Link list",
  supervision = "Supervision result",
  ns = "Name service",
}

local VALUES = {
  ["iemli.reason"] = { [0] = "IEMLI_REJ_SERVICE_NOT_INITIATED", [1] = "IEMLI_REJ_SERVICE_INITIATED", [2] = "IEMLI_REJ_SERVICE_INVALID_PV", [3] = "IEMLI_REJ_UNKNOWN_LINK_REF", [4] = "IEMLI_REJ_UNKNOWN_PORT_NAME", [5] = "IEMLI_REJ_PORT_ALREADY_USED", [6] = "IEMLI_REJ_LINK_ALREADY_CREATED", [7] = "IEMLI_REJ_INVALID_VLAN_ID", [8] = "IEMLI_REJ_LINK_DATA_NO_CHANGE", [9] = "IEMLI_REJ_MP_ID_NOT_READY", [11] = "IEMLI_REJ_REMOTE_CPM_MAC_CONFLICT", [12] = "IEMLI_REJ_SAME_CPM_APP_MAC", [13] = "IEMLI_REJ_SAME_SRC_DST_APP_MAC", [14] = "IEMLI_REJ_APP_LINK_ALREADY_USED", [15] = "IEMLI_REJ_DUPLICATE_APP_LINKS", [16] = "IEMLI_REJ_PORT_NOT_RESERVED", [17] = "IEMLI_REJ_INVALID_RTT_CONFIG_PARAM", [18] = "IEMLI_REJ_RTT_ALREADY_ENABLED", [99] = "IEMLI_REJ_OTHER_REASON" },
  ["iepcsi.reason"] = { [0] = "IEPCSI_REJ_INTERNAL_REASON", [1] = "IEPCSI_REJ_SERVICE_INVALID_PV", [2] = "IEPCSI_REJ_INVALID_PORTREF", [3] = "IEPCSI_REJ_INVALID_PORTNAME", [4] = "IEPCSI_REJ_INVALID_PORTSTATE", [5] = "IEPCSI_REJ_INVALID_PORTROLE", [6] = "IEPCSI_REJ_PORT_RESERVED", [7] = "IEPCSI_REJ_PORT_NOT_RESERVED" },
  ["pmi.reason"] = { [0] = "PMI_REJ_INTERNAL_REASON", [1] = "PMI_REJ_SERVICE_INVALID_PV", [2] = "PMI_REJ_INVALID_RESOURCE", [3] = "PMI_REJ_INVALID_PORTSTATE", [4] = "PMI_REJ_NOT_ALLOWED" },
  ["emi.reason"] = { [1] = "EMI_REJ_INTERNAL_REASON", [2] = "EMI_REJ_INVALID_PV", [3] = "EMI_REJ_CLIENT_NOT_REGISTERED", [4] = "EMI_REJ_ILLEGAL_VLAN_ID", [5] = "EMI_REJ_UNKNOWN_PORT_NAME", [6] = "EMI_REJ_MAX_NUM_ENDPOINTS_REACHED" },
  ["fmi.reason"] = { [1] = "FMI_ERROR_UNSUCCESSFUL", [2] = "FMI_ERROR_ACL_NOT_SUPPORTED", [3] = "FMI_ERROR_ACL_UNKNOWN_PORT", [4] = "FMI_ERROR_ACL_UNKNOWN_ACTION", [5] = "FMI_ERROR_ACL_UNKNOWN_STATIC_RULE", [6] = "FMI_ERROR_ACL_INVALID_ARGS", [7] = "FMI_ERROR_ACL_NOT_READY", [8] = "FMI_ERROR_MAX_NO_OF_CLIENTS" },
  ["fmi.error_code"] = { [1] = "FMI_ERROR_UNSUCCESSFUL", [2] = "FMI_ERROR_ACL_NOT_SUPPORTED", [3] = "FMI_ERROR_ACL_UNKNOWN_PORT", [4] = "FMI_ERROR_ACL_UNKNOWN_ACTION", [5] = "FMI_ERROR_ACL_UNKNOWN_STATIC_RULE", [6] = "FMI_ERROR_ACL_INVALID_ARGS", [7] = "FMI_ERROR_ACL_NOT_READY", [8] = "FMI_ERROR_MAX_NO_OF_CLIENTS" },
  ["aasi.reason"] = { [0] = "AUTOMATIONAGENTSI_NO_COMMONLY_SUPPORTED_PROTOCOL_VERSION" },
  ["fmi.capability"] = { [1] = "FMI_CAPABILITY_ACL_DEFAULT_ACTION", [2] = "FMI_CAPABILITY_ACL_APPEND_STATIC_RULE", [3] = "FMI_CAPABILITY_ACL_REMOVE_STATIC_RULE", [4] = "FMI_CAPABILITY_ACL_APPEND_DYNAMIC_RULE", [5] = "FMI_CAPABILITY_ACL_REMOVE_DYNAMIC_RULE", [6] = "FMI_CAPABILITY_ACL_POLICER" },
  ["iemli.status"] = { [0] = "IML_LINK_DISABLED", [1] = "IML_LINK_ENABLED" },
  ["iemli.disabled_reason"] = { [2] = "IML_LINK_REASON_DOWN", [3] = "IML_LINK_REASON_LOCKED", [4] = "IML_LINK_REASON_NO_CONNECTIVITY" },
  ["shell.status"] = { [0] = "IML_LINK_DISABLED", [1] = "IML_LINK_ENABLED" },
  ["shell.disabled_reason"] = { [2] = "IML_LINK_REASON_DOWN", [3] = "IML_LINK_REASON_LOCKED", [4] = "IML_LINK_REASON_NO_CONNECTIVITY" },
  ["iepcsi.vlan_action"] = { [1] = "IEPCSI_VLAN_ADDED", [2] = "IEPCSI_VLAN_REMOVED" },
}

local STRUCTURES = {
  iemli_plain_msg = {
    { name = "procedure_ref", kind = "h32", at = 4, size = 4 },
    { name = "connection_ref", kind = "h32", at = 8, size = 4 },
  },
  iemli_init_service_req = {
    { name = "procedure_ref", kind = "h32", at = 4, size = 4 },
    { name = "connection_ref", kind = "h32", at = 8, size = 4 },
    { name = "pv_1", kind = "h32", at = 12, size = 4 },
    { name = "pv_2", kind = "h32", at = 16, size = 4 },
    { name = "pv_3", kind = "h32", at = 20, size = 4 },
  },
  iemli_init_service_cfm = {
    { name = "procedure_ref", kind = "h32", at = 4, size = 4 },
    { name = "connection_ref", kind = "h32", at = 8, size = 4 },
    { name = "pv_selected", kind = "h32", at = 12, size = 4 },
  },
  iemli_rej = {
    { name = "procedure_ref", kind = "h32", at = 4, size = 4 },
    { name = "connection_ref", kind = "h32", at = 8, size = 4 },
    { name = "reason", kind = "h32", at = 12, size = 4 },
  },
  iemli_get_mac_req = {
    { name = "procedure_ref", kind = "h32", at = 4, size = 4 },
    { name = "connection_ref", kind = "h32", at = 8, size = 4 },
    { name = "mpId", kind = "u8", at = 12, size = 1 },
    { name = "imlPortName", kind = "text", at = 13, size = 17 },
  },
  iemli_get_mac_cfm = {
    { name = "procedure_ref", kind = "h32", at = 4, size = 4 },
    { name = "connection_ref", kind = "h32", at = 8, size = 4 },
    { name = "mpId", kind = "u8", at = 12, size = 1 },
    { name = "port_name", kind = "text", at = 13, size = 16 },
    { name = "mac", kind = "mac", at = 29, size = 6 },
  },
  iemli_create_link_req = {
    { name = "procedure_ref", kind = "h32", at = 4, size = 4 },
    { name = "connection_ref", kind = "h32", at = 8, size = 4 },
    { name = "nearEndMpId", kind = "u8", at = 12, size = 1 },
    { name = "farEndCpmMac", kind = "mac", at = 13, size = 6 },
    { name = "imlPortName", kind = "text", at = 19, size = 17 },
    { name = "vlanId", kind = "h16", at = 36, size = 2 },
    { name = "numberOfAppLinks", kind = "h32", at = 40, size = 4 },
    { name = "appLinks", kind = "list", at = 44, size = 12, count = "numberOfAppLinks", slots = 1, most = 0, entry = {
      { name = "nearEndAppMac", kind = "mac", at = 0, size = 6 },
      { name = "farEndAppMac", kind = "mac", at = 6, size = 6 },
    } },
  },
  iemli_create_link_cfm = {
    { name = "procedure_ref", kind = "h32", at = 4, size = 4 },
    { name = "connection_ref", kind = "h32", at = 8, size = 4 },
    { name = "link_ref", kind = "h32", at = 12, size = 4 },
  },
  iemli_update_link_req = {
    { name = "procedure_ref", kind = "h32", at = 4, size = 4 },
    { name = "connection_ref", kind = "h32", at = 8, size = 4 },
    { name = "link_ref", kind = "h32", at = 12, size = 4 },
    { name = "numberOfAppLinks", kind = "h32", at = 16, size = 4 },
    { name = "appLinks", kind = "list", at = 20, size = 12, count = "numberOfAppLinks", slots = 1, most = 0, entry = {
      { name = "nearEndAppMac", kind = "mac", at = 0, size = 6 },
      { name = "farEndAppMac", kind = "mac", at = 6, size = 6 },
    } },
  },
  iemli_link_ref_req = {
    { name = "procedure_ref", kind = "h32", at = 4, size = 4 },
    { name = "connection_ref", kind = "h32", at = 8, size = 4 },
    { name = "link_ref", kind = "h32", at = 12, size = 4 },
  },
  iemli_link_status_ind = {
    { name = "procedure_ref", kind = "h32", at = 4, size = 4 },
    { name = "connection_ref", kind = "h32", at = 8, size = 4 },
    { name = "link_ref", kind = "h32", at = 12, size = 4 },
    { name = "status", kind = "h32", at = 16, size = 4 },
    { name = "disabled_reason", kind = "h32", at = 20, size = 4 },
  },
  iemli_enable_rtt_req = {
    { name = "procedure_ref", kind = "h32", at = 4, size = 4 },
    { name = "connection_ref", kind = "h32", at = 8, size = 4 },
    { name = "link_ref", kind = "h32", at = 12, size = 4 },
    { name = "batchSize", kind = "h16", at = 16, size = 2 },
    { name = "measureInterval", kind = "h16", at = 18, size = 2 },
    { name = "frameSize", kind = "h16", at = 20, size = 2 },
  },
  iemli_link_rtt_ind = {
    { name = "procedure_ref", kind = "h32", at = 4, size = 4 },
    { name = "connection_ref", kind = "h32", at = 8, size = 4 },
    { name = "link_ref", kind = "h32", at = 12, size = 4 },
    { name = "min_sec", kind = "h32", at = 16, size = 4 },
    { name = "min_nsec", kind = "h32", at = 20, size = 4 },
    { name = "avg_sec", kind = "h32", at = 24, size = 4 },
    { name = "avg_nsec", kind = "h32", at = 28, size = 4 },
    { name = "max_sec", kind = "h32", at = 32, size = 4 },
    { name = "max_nsec", kind = "h32", at = 36, size = 4 },
    { name = "rtt_validity", kind = "u8", at = 40, size = 1 },
  },
  client_plain_msg = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
  },
  iepcsi_init_service_req = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "pv_first_wanted", kind = "n32", at = 12, size = 4 },
    { name = "pv_second_wanted", kind = "n32", at = 16, size = 4 },
    { name = "pv_third_wanted", kind = "n32", at = 20, size = 4 },
  },
  client_conn_establish_cfm = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "pv_selected", kind = "n32", at = 12, size = 4 },
  },
  client_rej = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "reason", kind = "n32", at = 12, size = 4 },
  },
  iepcsi_get_eth_port_support_cfm = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "number_of_ports", kind = "n32", at = 12, size = 4 },
    { name = "ports", kind = "list", at = 16, size = 48, count = "number_of_ports", slots = 0, most = 0, entry = {
      { name = "capability", kind = "n32", at = 0, size = 4 },
      { name = "mac", kind = "mac", at = 8, size = 6 },
      { name = "port_name", kind = "text", at = 14, size = 16 },
      { name = "if_name", kind = "text", at = 30, size = 16 },
    } },
  },
  iepcsi_subscribe_req = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "port_role", kind = "n32", at = 12, size = 4 },
    { name = "port_name", kind = "text", at = 16, size = 16 },
  },
  iepcsi_subscribe_cfm = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "subscribe_ref", kind = "n32", at = 12, size = 4 },
  },
  iepcsi_eth_port_status_ind = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "port_adm_state", kind = "n32", at = 12, size = 4 },
    { name = "port_oper_state", kind = "n32", at = 16, size = 4 },
    { name = "port_name", kind = "text", at = 20, size = 16 },
    { name = "name_space", kind = "text", at = 36, size = 0 },
  },
  iepcsi_port_vlan_status_ind = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "vlan_id", kind = "n16", at = 12, size = 2 },
    { name = "vlan_action", kind = "n32", at = 16, size = 4 },
    { name = "port_role", kind = "n32", at = 20, size = 4 },
    { name = "if_name", kind = "text", at = 24, size = 16 },
    { name = "port_name", kind = "text", at = 40, size = 16 },
    { name = "name_space", kind = "text", at = 56, size = 0 },
  },
  client_conn_establish_req = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "num_pvs", kind = "n32", at = 12, size = 4 },
    { name = "pv", kind = "list", at = 16, size = 4, count = "num_pvs", slots = 0, most = 0, entry = {
      { name = "pv", kind = "n32", at = 0, size = 4 },
    } },
  },
  client_capability_cfm = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "num_caps", kind = "n32", at = 12, size = 4 },
  },
  pmi_port_vlan_req = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "port_name", kind = "text", at = 12, size = 16 },
    { name = "vlan_id", kind = "n32", at = 28, size = 4 },
  },
  emi_get_capability_cfm = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "num_caps", kind = "n32", at = 12, size = 4 },
    { name = "capability", kind = "list", at = 16, size = 4, count = "num_caps", slots = 0, most = 0, entry = {
      { name = "capability", kind = "n32", at = 0, size = 4 },
    } },
  },
  emi_endpoint_req = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "num_of_eps", kind = "n32", at = 12, size = 4 },
    { name = "endpoints", kind = "list", at = 16, size = 100, count = "num_of_eps", slots = 0, most = 0, entry = {
      { name = "ifName", kind = "text", at = 0, size = 64 },
      { name = "mac", kind = "mac", at = 64, size = 6 },
      { name = "epType", kind = "n32", at = 72, size = 4 },
      { name = "vlanId", kind = "n32", at = 76, size = 4 },
      { name = "farEnd", kind = "n32", at = 92, size = 4 },
      { name = "flag", kind = "u8", at = 96, size = 1 },
    } },
  },
  fmi_get_capabilities_cfm = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "num_caps", kind = "n32", at = 12, size = 4 },
    { name = "entries", kind = "list", at = 16, size = 8, count = "num_caps", slots = 0, most = 0, entry = {
      { name = "capability", kind = "n32", at = 0, size = 4 },
    } },
  },
  fmi_set_default_action_req = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "type", kind = "n32", at = 12, size = 4 },
    { name = "port_name", kind = "text", at = 16, size = 64 },
  },
  fmi_set_default_action_cfm = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "port_name", kind = "text", at = 12, size = 64 },
  },
  fmi_port_rej = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "error_code", kind = "n32", at = 12, size = 4 },
    { name = "port_name", kind = "text", at = 16, size = 64 },
    { name = "error_text", kind = "text", at = 80, size = 128 },
  },
  fmi_append_static_rule_req = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "rule_type", kind = "n32", at = 12, size = 4 },
    { name = "port_name", kind = "text", at = 16, size = 64 },
  },
  fmi_append_static_rule_cfm = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "rule_type", kind = "n32", at = 12, size = 4 },
    { name = "id", kind = "n32", at = 16, size = 4 },
    { name = "port_name", kind = "text", at = 20, size = 64 },
  },
  fmi_append_static_rule_rej = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "error_code", kind = "n32", at = 12, size = 4 },
    { name = "rule_type", kind = "n32", at = 16, size = 4 },
    { name = "error_text", kind = "text", at = 20, size = 128 },
    { name = "port_name", kind = "text", at = 148, size = 64 },
  },
  fmi_rule_id_msg = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "id", kind = "n32", at = 12, size = 4 },
    { name = "port_name", kind = "text", at = 16, size = 64 },
  },
  fmi_remove_static_rule_rej = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "error_code", kind = "n32", at = 12, size = 4 },
    { name = "id", kind = "n32", at = 16, size = 4 },
    { name = "error_text", kind = "text", at = 20, size = 128 },
    { name = "port_name", kind = "text", at = 148, size = 64 },
  },
  fmi_append_dynamic_rule_req = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "port_name", kind = "text", at = 12, size = 64 },
    { name = "one", kind = "n32", at = 76, size = 4 },
    { name = "zero", kind = "n32", at = 80, size = 4 },
    { name = "policer_id", kind = "n32", at = 84, size = 4 },
    { name = "no_of_entries", kind = "n32", at = 88, size = 4 },
    { name = "entries", kind = "list", at = 92, size = 36, count = "no_of_entries", slots = 1, most = 0, entry = {
      { name = "type", kind = "n32", at = 0, size = 4 },
      { name = "mac", kind = "mac", at = 16, size = 6 },
      { name = "mask", kind = "mac", at = 22, size = 6 },
      { name = "ether_type", kind = "n16", at = 32, size = 2 },
    } },
  },
  fmi_append_dynamic_rule_cfm = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "port_name", kind = "text", at = 12, size = 64 },
    { name = "rule_id", kind = "n32", at = 76, size = 4 },
  },
  fmi_remove_dynamic_rule_rej = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "error_code", kind = "n32", at = 12, size = 4 },
    { name = "rule_id", kind = "n32", at = 16, size = 4 },
    { name = "port_name", kind = "text", at = 20, size = 64 },
    { name = "error_text", kind = "text", at = 84, size = 128 },
  },
  fmi_create_policer_req = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "commitedRate", kind = "n32", at = 12, size = 4 },
    { name = "commitedMaxBurstSize", kind = "n32", at = 16, size = 4 },
    { name = "peakRate", kind = "n32", at = 20, size = 4 },
    { name = "peakMaxBurstSize", kind = "n32", at = 24, size = 4 },
    { name = "useCommitedRateOnly", kind = "n32", at = 28, size = 4 },
    { name = "port_name", kind = "text", at = 32, size = 64 },
  },
  aasi_path_req = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "link_ref", kind = "n32", at = 12, size = 4 },
    { name = "latency_req", kind = "n32", at = 16, size = 4 },
    { name = "port_name", kind = "text", at = 20, size = 32 },
    { name = "near_end_cpm_mac", kind = "mac", at = 52, size = 6 },
    { name = "remote_cpm_mac", kind = "mac", at = 58, size = 6 },
    { name = "vlan_id", kind = "n16", at = 64, size = 2 },
    { name = "number_of_app_links", kind = "n32", at = 68, size = 4 },
    { name = "app_links", kind = "list", at = 72, size = 12, count = "number_of_app_links", slots = 0, most = 0, entry = {
      { name = "nearEndAppMac", kind = "mac", at = 0, size = 6 },
      { name = "farEndAppMac", kind = "mac", at = 6, size = 6 },
    } },
  },
  aasi_path_delete_req = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "link_ref", kind = "n32", at = 12, size = 4 },
    { name = "port_name", kind = "text", at = 16, size = 32 },
    { name = "near_end_cpm_mac", kind = "mac", at = 48, size = 6 },
    { name = "remote_cpm_mac", kind = "mac", at = 54, size = 6 },
    { name = "vlan_id", kind = "n16", at = 60, size = 2 },
  },
  aasi_path_info_ind = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "link_ref", kind = "n32", at = 12, size = 4 },
    { name = "min_latency", kind = "n32", at = 16, size = 4 },
    { name = "max_latency", kind = "n32", at = 20, size = 4 },
    { name = "avg_latency", kind = "n32", at = 24, size = 4 },
    { name = "link_status", kind = "n32", at = 28, size = 4 },
  },
  aasi_path_cfm = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "link_ref", kind = "n32", at = 12, size = 4 },
  },
  aasi_config_update_ind = {
    { name = "procedure_ref", kind = "n32", at = 4, size = 4 },
    { name = "connection_ref", kind = "n32", at = 8, size = 4 },
    { name = "number_of_services", kind = "n32", at = 12, size = 4 },
    { name = "service_id", kind = "list", at = 16, size = 4, count = "number_of_services", slots = 0, most = 0, entry = {
      { name = "service_id", kind = "n32", at = 0, size = 4 },
    } },
  },
  shell_link_list = {
    { name = "count", kind = "h32", at = 4, size = 4 },
    { name = "records", kind = "list", at = 8, size = 344, count = "count", slots = 0, most = 0, entry = {
      { name = "connection_ref", kind = "h32", at = 0, size = 4 },
      { name = "link_ref", kind = "h32", at = 4, size = 4 },
      { name = "near_end_mp_id", kind = "u8", at = 8, size = 1 },
      { name = "near_end_cpm_mac", kind = "mac", at = 9, size = 6 },
      { name = "far_end_cpm_mac", kind = "mac", at = 15, size = 6 },
      { name = "port_name", kind = "text", at = 21, size = 16 },
      { name = "vlan_id", kind = "h16", at = 38, size = 2 },
      { name = "app_link_count", kind = "h32", at = 40, size = 4 },
      { name = "status", kind = "h32", at = 44, size = 4 },
      { name = "disabled_reason", kind = "h32", at = 48, size = 4 },
      { name = "app_links", kind = "list", at = 52, size = 12, count = "app_link_count", slots = 16, most = 16, entry = {
        { name = "nearEndAppMac", kind = "mac", at = 0, size = 6 },
        { name = "farEndAppMac", kind = "mac", at = 6, size = 6 },
      } },
      { name = "rtt_state", kind = "h32", at = 244, size = 4 },
      { name = "supervision_state", kind = "h32", at = 248, size = 4 },
      { name = "batchSize", kind = "h16", at = 252, size = 2 },
      { name = "measureInterval", kind = "h16", at = 254, size = 2 },
      { name = "frameSize", kind = "h16", at = 256, size = 2 },
      { name = "supervision_results", kind = "h32", at = 260, size = 4 },
      { name = "supervision_lost", kind = "h32", at = 264, size = 4 },
      { name = "rtt_present", kind = "u8", at = 270, size = 1 },
      { name = "microseconds", kind = "h32", at = 320, size = 4 },
      { name = "hundredths", kind = "h32", at = 324, size = 4 },
      { name = "microseconds", kind = "h32", at = 328, size = 4 },
      { name = "hundredths", kind = "h32", at = 332, size = 4 },
      { name = "microseconds", kind = "h32", at = 336, size = 4 },
      { name = "hundredths", kind = "h32", at = 340, size = 4 },
    } },
  },
  itc_number_only = {
  },
  supervision_ind = {
    { name = "session_id", kind = "h32", at = 4, size = 4 },
    { name = "result", kind = "h32", at = 8, size = 4 },
    { name = "rtt_sec", kind = "h32", at = 12, size = 4 },
    { name = "rtt_nsec", kind = "h32", at = 16, size = 4 },
  },
  ns_subscribe_rsp = {
    { name = "sid", kind = "h32", at = 4, size = 4 },
  },
  ns_service_ind = {
    { name = "sid", kind = "h32", at = 4, size = 4 },
    { name = "mbox", kind = "h32", at = 8, size = 4 },
    { name = "path", kind = "text", at = 20, size = 0 },
  },
}

local MESSAGES = {
  [0x1B0E00] = { protocol = "iemli", name = "IEMLI_CLIENT_DOWN_IND", needed = 12, structure = "iemli_plain_msg" },
  [0x1B0E01] = { protocol = "iemli", name = "IEMLI_SERVER_UP_IND", needed = 4, structure = nil },
  [0x1B0E02] = { protocol = "iemli", name = "IEMLI_SERVER_DOWN_IND", needed = 4, structure = nil },
  [0x1B0E03] = { protocol = "iemli", name = "IEMLI_INIT_SERVICE_REQ", needed = 24, structure = "iemli_init_service_req" },
  [0x1B0E04] = { protocol = "iemli", name = "IEMLI_INIT_SERVICE_CFM", needed = 16, structure = "iemli_init_service_cfm" },
  [0x1B0E05] = { protocol = "iemli", name = "IEMLI_INIT_SERVICE_REJ", needed = 16, structure = "iemli_rej" },
  [0x1B0E06] = { protocol = "iemli", name = "IEMLI_TERM_SERVICE_REQ", needed = 12, structure = "iemli_plain_msg" },
  [0x1B0E07] = { protocol = "iemli", name = "IEMLI_TERM_SERVICE_CFM", needed = 12, structure = "iemli_plain_msg" },
  [0x1B0E08] = { protocol = "iemli", name = "IEMLI_GET_LOCAL_SUPERVISION_MAC_REQ", needed = 14, structure = "iemli_get_mac_req" },
  [0x1B0E09] = { protocol = "iemli", name = "IEMLI_GET_LOCAL_SUPERVISION_MAC_CFM", needed = 36, structure = "iemli_get_mac_cfm" },
  [0x1B0E0A] = { protocol = "iemli", name = "IEMLI_GET_LOCAL_SUPERVISION_MAC_REJ", needed = 16, structure = "iemli_rej" },
  [0x1B0E0B] = { protocol = "iemli", name = "IEMLI_CREATE_INTER_ME_LINK_REQ", needed = 56, structure = "iemli_create_link_req" },
  [0x1B0E0C] = { protocol = "iemli", name = "IEMLI_CREATE_INTER_ME_LINK_CFM", needed = 16, structure = "iemli_create_link_cfm" },
  [0x1B0E0D] = { protocol = "iemli", name = "IEMLI_CREATE_INTER_ME_LINK_REJ", needed = 16, structure = "iemli_rej" },
  [0x1B0E0E] = { protocol = "iemli", name = "IEMLI_UPDATE_INTER_ME_LINK_REQ", needed = 32, structure = "iemli_update_link_req" },
  [0x1B0E0F] = { protocol = "iemli", name = "IEMLI_UPDATE_INTER_ME_LINK_CFM", needed = 12, structure = "iemli_plain_msg" },
  [0x1B0E10] = { protocol = "iemli", name = "IEMLI_UPDATE_INTER_ME_LINK_REJ", needed = 16, structure = "iemli_rej" },
  [0x1B0E11] = { protocol = "iemli", name = "IEMLI_DELETE_INTER_ME_LINK_REQ", needed = 16, structure = "iemli_link_ref_req" },
  [0x1B0E12] = { protocol = "iemli", name = "IEMLI_DELETE_INTER_ME_LINK_CFM", needed = 12, structure = "iemli_plain_msg" },
  [0x1B0E13] = { protocol = "iemli", name = "IEMLI_INTER_ME_LINK_STATUS_IND", needed = 24, structure = "iemli_link_status_ind" },
  [0x1B0E14] = { protocol = "iemli", name = "IEMLI_ENABLE_INTER_ME_LINK_RTT_REQ", needed = 24, structure = "iemli_enable_rtt_req" },
  [0x1B0E15] = { protocol = "iemli", name = "IEMLI_ENABLE_INTER_ME_LINK_RTT_CFM", needed = 12, structure = "iemli_plain_msg" },
  [0x1B0E16] = { protocol = "iemli", name = "IEMLI_ENABLE_INTER_ME_LINK_RTT_REJ", needed = 16, structure = "iemli_rej" },
  [0x1B0E17] = { protocol = "iemli", name = "IEMLI_DISABLE_INTER_ME_LINK_RTT_REQ", needed = 16, structure = "iemli_link_ref_req" },
  [0x1B0E18] = { protocol = "iemli", name = "IEMLI_DISABLE_INTER_ME_LINK_RTT_CFM", needed = 12, structure = "iemli_plain_msg" },
  [0x1B0E19] = { protocol = "iemli", name = "IEMLI_INTER_ME_LINK_RTT_IND", needed = 44, structure = "iemli_link_rtt_ind" },
  [0x1B1041] = { protocol = "iepcsi", name = "IEPCSI_SERVER_UP_IND", needed = 12, structure = "client_plain_msg" },
  [0x1B1042] = { protocol = "iepcsi", name = "IEPCSI_SERVER_DOWN_IND", needed = 12, structure = "client_plain_msg" },
  [0x1B1043] = { protocol = "iepcsi", name = "IEPCSI_INIT_SERVICE_REQ", needed = 24, structure = "iepcsi_init_service_req" },
  [0x1B1044] = { protocol = "iepcsi", name = "IEPCSI_INIT_SERVICE_CFM", needed = 16, structure = "client_conn_establish_cfm" },
  [0x1B1045] = { protocol = "iepcsi", name = "IEPCSI_INIT_SERVICE_REJ", needed = 16, structure = "client_rej" },
  [0x1B1047] = { protocol = "iepcsi", name = "IEPCSI_TERM_SERVICE_CFM", needed = 12, structure = "client_plain_msg" },
  [0x1B1048] = { protocol = "iepcsi", name = "IEPCSI_GET_ETH_PORT_SUPPORT_REQ", needed = 12, structure = "client_plain_msg" },
  [0x1B1049] = { protocol = "iepcsi", name = "IEPCSI_GET_ETH_PORT_SUPPORT_CFM", needed = 16, structure = "iepcsi_get_eth_port_support_cfm" },
  [0x1B104A] = { protocol = "iepcsi", name = "IEPCSI_GET_ETH_PORT_SUPPORT_REJ", needed = 16, structure = "client_rej" },
  [0x1B1050] = { protocol = "iepcsi", name = "IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ", needed = 32, structure = "iepcsi_subscribe_req" },
  [0x1B1051] = { protocol = "iepcsi", name = "IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM", needed = 16, structure = "iepcsi_subscribe_cfm" },
  [0x1B1052] = { protocol = "iepcsi", name = "IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ", needed = 16, structure = "client_rej" },
  [0x1B1055] = { protocol = "iepcsi", name = "IEPCSI_ETH_PORT_STATUS_IND", needed = 36, structure = "iepcsi_eth_port_status_ind" },
  [0x1B1063] = { protocol = "iepcsi", name = "IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REQ", needed = 32, structure = "iepcsi_subscribe_req" },
  [0x1B1064] = { protocol = "iepcsi", name = "IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_CFM", needed = 16, structure = "iepcsi_subscribe_cfm" },
  [0x1B1065] = { protocol = "iepcsi", name = "IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REJ", needed = 16, structure = "client_rej" },
  [0x1B1068] = { protocol = "iepcsi", name = "IEPCSI_PORT_VLAN_STATUS_IND", needed = 56, structure = "iepcsi_port_vlan_status_ind" },
  [0x1B1001] = { protocol = "pmi", name = "PMI_SERVER_UP_IND", needed = 12, structure = "client_plain_msg" },
  [0x1B1002] = { protocol = "pmi", name = "PMI_SERVER_DOWN_IND", needed = 12, structure = "client_plain_msg" },
  [0x1B1003] = { protocol = "pmi", name = "PMI_CONN_ESTABLISH_REQ", needed = 16, structure = "client_conn_establish_req" },
  [0x1B1004] = { protocol = "pmi", name = "PMI_CONN_ESTABLISH_CFM", needed = 16, structure = "client_conn_establish_cfm" },
  [0x1B1005] = { protocol = "pmi", name = "PMI_CONN_ESTABLISH_REJ", needed = 16, structure = "client_rej" },
  [0x1B1006] = { protocol = "pmi", name = "PMI_GET_CAPABILITY_REQ", needed = 12, structure = "client_plain_msg" },
  [0x1B1007] = { protocol = "pmi", name = "PMI_GET_CAPABILITY_CFM", needed = 16, structure = "client_capability_cfm" },
  [0x1B1008] = { protocol = "pmi", name = "PMI_GET_CAPABILITY_REJ", needed = 16, structure = "client_rej" },
  [0x1B1009] = { protocol = "pmi", name = "PMI_ENABLE_PORT_VLAN_REQ", needed = 32, structure = "pmi_port_vlan_req" },
  [0x1B100A] = { protocol = "pmi", name = "PMI_ENABLE_PORT_VLAN_CFM", needed = 12, structure = "client_plain_msg" },
  [0x1B100B] = { protocol = "pmi", name = "PMI_ENABLE_PORT_VLAN_REJ", needed = 16, structure = "client_rej" },
  [0x1B100C] = { protocol = "pmi", name = "PMI_DISABLE_PORT_VLAN_REQ", needed = 32, structure = "pmi_port_vlan_req" },
  [0x1B100D] = { protocol = "pmi", name = "PMI_DISABLE_PORT_VLAN_CFM", needed = 12, structure = "client_plain_msg" },
  [0x1B100E] = { protocol = "pmi", name = "PMI_DISABLE_PORT_VLAN_REJ", needed = 16, structure = "client_rej" },
  [0x1B0CE4] = { protocol = "emi", name = "EMI_SERVER_DOWN", needed = 12, structure = "client_plain_msg" },
  [0x1B0CE5] = { protocol = "emi", name = "EMI_SERVER_UP", needed = 12, structure = "client_plain_msg" },
  [0x1B10C0] = { protocol = "emi", name = "EMI_CONN_ESTABLISH_REQ", needed = 16, structure = "client_conn_establish_req" },
  [0x1B10C1] = { protocol = "emi", name = "EMI_CONN_ESTABLISH_CFM", needed = 16, structure = "client_conn_establish_cfm" },
  [0x1B10C2] = { protocol = "emi", name = "EMI_CONN_ESTABLISH_REJ", needed = 16, structure = "client_rej" },
  [0x1B10C3] = { protocol = "emi", name = "EMI_GET_CAPABILITY_REQ", needed = 12, structure = "client_plain_msg" },
  [0x1B10C4] = { protocol = "emi", name = "EMI_GET_CAPABILITY_CFM", needed = 16, structure = "emi_get_capability_cfm" },
  [0x1B10C5] = { protocol = "emi", name = "EMI_GET_CAPABILITY_REJ", needed = 16, structure = "client_rej" },
  [0x1B10C6] = { protocol = "emi", name = "EMI_ADD_ENDPOINT_REQ", needed = 16, structure = "emi_endpoint_req" },
  [0x1B10C7] = { protocol = "emi", name = "EMI_ADD_ENDPOINT_CFM", needed = 12, structure = "client_plain_msg" },
  [0x1B10C8] = { protocol = "emi", name = "EMI_ADD_ENDPOINT_REJ", needed = 16, structure = "client_rej" },
  [0x1B10C9] = { protocol = "emi", name = "EMI_REMOVE_ENDPOINT_REQ", needed = 16, structure = "emi_endpoint_req" },
  [0x1B10CA] = { protocol = "emi", name = "EMI_REMOVE_ENDPOINT_CFM", needed = 12, structure = "client_plain_msg" },
  [0x1B10CB] = { protocol = "emi", name = "EMI_REMOVE_ENDPOINT_REJ", needed = 16, structure = "client_rej" },
  [0x1B0F50] = { protocol = "fmi", name = "FMI_CONN_ESTABLISH_REQ", needed = 16, structure = "client_conn_establish_req" },
  [0x1B0F51] = { protocol = "fmi", name = "FMI_CONN_ESTABLISH_CFM", needed = 16, structure = "client_conn_establish_cfm" },
  [0x1B0F52] = { protocol = "fmi", name = "FMI_CONN_ESTABLISH_REJ", needed = 16, structure = "client_rej" },
  [0x1B0F53] = { protocol = "fmi", name = "FMI_GET_CAPABILITY_REQ", needed = 12, structure = "client_plain_msg" },
  [0x1B0F54] = { protocol = "fmi", name = "FMI_GET_CAPABILITIES_CFM", needed = 16, structure = "fmi_get_capabilities_cfm" },
  [0x1B0F55] = { protocol = "fmi", name = "FMI_GET_CAPABILITIES_REJ", needed = 16, structure = "client_rej" },
  [0x1B0F56] = { protocol = "fmi", name = "FMI_SERVER_UP", needed = 12, structure = "client_plain_msg" },
  [0x1B0F57] = { protocol = "fmi", name = "FMI_SERVER_DOWN", needed = 12, structure = "client_plain_msg" },
  [0x1B0F58] = { protocol = "fmi", name = "FMI_ACL_SET_DEFAULT_ACTION_REQ", needed = 80, structure = "fmi_set_default_action_req" },
  [0x1B0F59] = { protocol = "fmi", name = "FMI_ACL_SET_DEFAULT_ACTION_CFM", needed = 12, structure = "fmi_set_default_action_cfm" },
  [0x1B0F5A] = { protocol = "fmi", name = "FMI_ACL_SET_DEFAULT_ACTION_REJ", needed = 80, structure = "fmi_port_rej" },
  [0x1B0F5B] = { protocol = "fmi", name = "FMI_ACL_APPEND_STATIC_RULE_REQ", needed = 80, structure = "fmi_append_static_rule_req" },
  [0x1B0F5C] = { protocol = "fmi", name = "FMI_ACL_APPEND_STATIC_RULE_CFM", needed = 20, structure = "fmi_append_static_rule_cfm" },
  [0x1B0F5D] = { protocol = "fmi", name = "FMI_ACL_APPEND_STATIC_RULE_REJ", needed = 148, structure = "fmi_append_static_rule_rej" },
  [0x1B0F5E] = { protocol = "fmi", name = "FMI_ACL_REMOVE_STATIC_RULE_REQ", needed = 80, structure = "fmi_rule_id_msg" },
  [0x1B0F5F] = { protocol = "fmi", name = "FMI_ACL_REMOVE_STATIC_RULE_CFM", needed = 16, structure = "fmi_rule_id_msg" },
  [0x1B0F60] = { protocol = "fmi", name = "FMI_ACL_REMOVE_STATIC_RULE_REJ", needed = 148, structure = "fmi_remove_static_rule_rej" },
  [0x1B0F61] = { protocol = "fmi", name = "FMI_ACL_APPEND_DYNAMIC_RULE_REQ", needed = 128, structure = "fmi_append_dynamic_rule_req" },
  [0x1B0F62] = { protocol = "fmi", name = "FMI_ACL_APPEND_DYNAMIC_RULE_CFM", needed = 80, structure = "fmi_append_dynamic_rule_cfm" },
  [0x1B0F63] = { protocol = "fmi", name = "FMI_ACL_APPEND_DYNAMIC_RULE_REJ", needed = 80, structure = "fmi_port_rej" },
  [0x1B0F64] = { protocol = "fmi", name = "FMI_ACL_REMOVE_DYNAMIC_RULE_REQ", needed = 80, structure = "fmi_rule_id_msg" },
  [0x1B0F65] = { protocol = "fmi", name = "FMI_ACL_REMOVE_DYNAMIC_RULE_CFM", needed = 16, structure = "fmi_rule_id_msg" },
  [0x1B0F66] = { protocol = "fmi", name = "FMI_ACL_REMOVE_DYNAMIC_RULE_REJ", needed = 84, structure = "fmi_remove_dynamic_rule_rej" },
  [0x1B0F67] = { protocol = "fmi", name = "FMI_ACL_CREATE_POLICER_REQ", needed = 96, structure = "fmi_create_policer_req" },
  [0x1B0F68] = { protocol = "fmi", name = "FMI_ACL_CREATE_POLICER_CFM", needed = 16, structure = "fmi_rule_id_msg" },
  [0x1B0F69] = { protocol = "fmi", name = "FMI_ACL_CREATE_POLICER_REJ", needed = 80, structure = "fmi_port_rej" },
  [0x1A00440] = { protocol = "aasi", name = "AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REQ", needed = 16, structure = "client_conn_establish_req" },
  [0x1A00443] = { protocol = "aasi", name = "AUTOMATIONAGENTSI_VORN_PATH_CREATE_REQ", needed = 72, structure = "aasi_path_req" },
  [0x1A00444] = { protocol = "aasi", name = "AUTOMATIONAGENTSI_VORN_PATH_UPDATE_REQ", needed = 72, structure = "aasi_path_req" },
  [0x1A00445] = { protocol = "aasi", name = "AUTOMATIONAGENTSI_VORN_PATH_DELETE_REQ", needed = 64, structure = "aasi_path_delete_req" },
  [0x1A00446] = { protocol = "aasi", name = "AUTOMATIONAGENTSI_VORN_PATH_INFO_IND", needed = 32, structure = "aasi_path_info_ind" },
  [0x1A004C0] = { protocol = "aasi", name = "AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_CFM", needed = 16, structure = "client_conn_establish_cfm" },
  [0x1A004C1] = { protocol = "aasi", name = "AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REJ", needed = 16, structure = "client_rej" },
  [0x1A004C4] = { protocol = "aasi", name = "AUTOMATIONAGENTSI_VORN_PATH_CREATE_CFM", needed = 16, structure = "aasi_path_cfm" },
  [0x1A004C5] = { protocol = "aasi", name = "AUTOMATIONAGENTSI_VORN_PATH_UPDATE_CFM", needed = 16, structure = "aasi_path_cfm" },
  [0x1A004C6] = { protocol = "aasi", name = "AUTOMATIONAGENTSI_VORN_PATH_DELETE_CFM", needed = 16, structure = "aasi_path_cfm" },
  [0x1A004C7] = { protocol = "aasi", name = "AUTOMATIONAGENTSI_CONFIG_UPDATE_IND", needed = 16, structure = "aasi_config_update_ind" },
  [0x1B0CE2] = { protocol = "shell", name = "IECTM_COLI_IML_LINK_LIST_RSP", needed = 8, structure = "shell_link_list" },
  [0x1B0CE3] = { protocol = "shell", name = "IECTM_COLI_IML_LINK_LIST_REQ", needed = 4, structure = "itc_number_only" },
  [0x1B0CE6] = { protocol = "supervision", name = "SUPERVISION_IND", needed = 20, structure = "supervision_ind" },
  [0x1900000] = { protocol = "ns", name = "NS_SUBSCRIBE_RSP", needed = 8, structure = "ns_subscribe_rsp" },
  [0x1900001] = { protocol = "ns", name = "NS_SERVICE_ADDED_IND", needed = 20, structure = "ns_service_ind" },
  [0x1900002] = { protocol = "ns", name = "NS_SERVICE_REMOVED_IND", needed = 20, structure = "ns_service_ind" },
}
-- <<< written by scripts/dissector

local HEAD_VERSION = 1
local HEAD_SIZE = 16
local FLAG_CUT = 1
local FLAG_LITTLE_ENDIAN = 2
local NO_MAILBOX = 0xFFFFFFFF
local MOST_ENTRIES = 4096 -- of one list; the others are counted, not shown

-- ---- Fields

local itc = Proto("kap.itc", "ITC message")
local fields = {
  version = ProtoField.uint8("kap.itc.version", "Version"),
  direction = ProtoField.uint8("kap.itc.direction", "Direction", base.DEC, { [1] = "received", [2] = "sent" }),
  flags = ProtoField.uint16("kap.itc.flags", "Flags", base.HEX),
  sender = ProtoField.uint32("kap.itc.sender", "Sender", base.HEX),
  receiver = ProtoField.uint32("kap.itc.receiver", "Receiver", base.HEX),
  sender_name = ProtoField.string("kap.itc.sender_name", "Sender's name"),
  receiver_name = ProtoField.string("kap.itc.receiver_name", "Receiver's name"),
  number = ProtoField.uint32("kap.itc.msgno", "Number", base.HEX),
  name = ProtoField.string("kap.itc.message", "Message"),
  rest = ProtoField.bytes("kap.itc.rest", "Further bytes"),
}
local short = ProtoExpert.new("kap.itc.short", "The message ends before its fields do", expert.group.MALFORMED,
                              expert.severity.ERROR)
local cut = ProtoExpert.new("kap.itc.cut", "The capture has cut the message here", expert.group.UNDECODED,
                            expert.severity.NOTE)
local unknown = ProtoExpert.new("kap.itc.unknown", "No message has this number", expert.group.UNDECODED,
                                expert.severity.NOTE)
local bad_head = ProtoExpert.new("kap.itc.bad_head", "No message of a capture begins so", expert.group.MALFORMED,
                                 expert.severity.ERROR)
itc.fields = { fields.version, fields.direction, fields.flags, fields.sender, fields.receiver, fields.sender_name,
               fields.receiver_name, fields.number, fields.name, fields.rest }
itc.experts = { short, cut, unknown, bad_head }

local MAKERS = {
  u8 = function(key, name, values) return ProtoField.uint8(key, name, base.DEC, values) end,
  h16 = function(key, name, values) return ProtoField.uint16(key, name, base.DEC, values) end,
  n16 = function(key, name, values) return ProtoField.uint16(key, name, base.DEC, values) end,
  h32 = function(key, name, values) return ProtoField.uint32(key, name, base.DEC, values) end,
  n32 = function(key, name, values) return ProtoField.uint32(key, name, base.DEC, values) end,
  mac = function(key, name) return ProtoField.ether(key, name) end,
  text = function(key, name) return ProtoField.string(key, name) end,
  bytes = function(key, name) return ProtoField.bytes(key, name) end,
  list = function(key, name) return ProtoField.none(key, name) end,
}

local protocols = {} -- the Proto of each protocol
local shown = {}     -- the ProtoField of "PROTOCOL.FIELD"

local function make_fields(protocol, structure, list)
  for _, f in ipairs(structure) do
    local key = protocol .. "." .. f.name
    if shown[key] == nil then
      -- A list of numbers is shown as its numbers.
      local plain = f.kind == "list" and #f.entry == 1 and f.entry[1].name == f.name
      if not plain then
        shown[key] = MAKERS[f.kind]("kap." .. key, f.name, VALUES[key])
        table.insert(list, shown[key])
      end
    end
    if f.kind == "list" then
      make_fields(protocol, f.entry, list)
    end
  end
end

for protocol, title in pairs(PROTOCOLS) do
  local list = {}
  for _, message in pairs(MESSAGES) do
    if message.protocol == protocol and message.structure ~= nil then
      make_fields(protocol, STRUCTURES[message.structure], list)
    end
  end
  protocols[protocol] = Proto("kap." .. protocol, title)
  protocols[protocol].fields = list
end

-- ---- Reading

-- A message: `bytes` is a TvbRange of what is there of it, `little` its byte order where it is not the network's.
local function number_of(message, kind, at)
  local range = message.bytes:range(at, kind == "u8" and 1 or (kind == "h16" or kind == "n16") and 2 or 4)
  if (kind == "h16" or kind == "h32") and message.little then
    return range:le_uint()
  end
  return range:uint()
end

local function text_of(range)
  local bytes = range:raw()
  local stop = bytes:find("\0", 1, true)
  return stop == nil and bytes or bytes:sub(1, stop - 1)
end

local show_fields

-- Where the bytes that the field needs end; nothing if they are not there.
local function show_list(message, tree, f, base_at, counts)
  local size = message.bytes:len()
  local count = counts[f.count] or 0
  local listed = f.most > 0 and math.min(count, f.most) or count
  local at = base_at + f.at
  for i = 1, math.min(listed, MOST_ENTRIES) do
    if at + f.size > size then
      return nil
    end
    local entry = tree
    if shown[message.protocol .. "." .. f.name] ~= nil and not (#f.entry == 1 and f.entry[1].name == f.name) then
      entry = tree:add(shown[message.protocol .. "." .. f.name], message.bytes:range(at, f.size))
      entry:append_text(" " .. i)
    end
    show_fields(message, entry, f.entry, at)
    at = at + f.size
  end
  local whole = base_at + f.at + math.max(listed, f.slots) * f.size
  return whole <= size and whole or nil
end

local function show_number(message, tree, f, at, counts)
  local value = number_of(message, f.kind, at)
  counts[f.name] = value
  local key = message.protocol .. "." .. f.name
  tree:add(shown[key], message.bytes:range(at, f.size), value)
  return at + f.size
end

-- A text ends with its zero, its field, or, where it stands last, with the message.
local function show_text(message, tree, f, at)
  local there = message.bytes:len() - at
  local size = f.size == 0 and there or math.min(f.size, there)
  if size > 0 then
    local range = message.bytes:range(at, size)
    tree:add(shown[message.protocol .. "." .. f.name], range, text_of(range))
  end
  return at + (f.size == 0 and there or f.size)
end

-- How far the fields of a structure reach; nothing where the message ends before.
show_fields = function(message, tree, structure, base_at)
  local counts = {}
  local size = message.bytes:len()
  local reached = base_at
  for _, f in ipairs(structure) do
    local at = base_at + f.at
    if f.kind == "list" then
      reached = show_list(message, tree, f, base_at, counts)
      if reached == nil then
        return nil
      end
    elseif f.kind == "text" then
      if at > size then
        return nil
      end
      reached = show_text(message, tree, f, at)
    elseif at + f.size > size then
      return nil
    elseif f.kind == "mac" or f.kind == "bytes" then
      tree:add(shown[message.protocol .. "." .. f.name], message.bytes:range(at, f.size))
      reached = at + f.size
    else
      reached = show_number(message, tree, f, at, counts)
    end
  end
  return reached
end

-- ---- Messages

local function who(name, mailbox)
  if name ~= "" then
    return name
  end
  return mailbox == NO_MAILBOX and "none" or string.format("0x%x", mailbox)
end

local function show_message(message, pinfo, tree)
  local size = message.bytes:len()
  if size < 4 then
    tree:add_proto_expert_info(message.cut and cut or short)
    return
  end
  local number = number_of(message, "h32", 0)
  tree:add(fields.number, message.bytes:range(0, 4), number)
  local known = MESSAGES[number]
  if known == nil then
    pinfo.cols.info = string.format("message 0x%x of %d bytes", number, message.length)
    tree:add_proto_expert_info(unknown)
    return
  end
  pinfo.cols.protocol = PROTOCOLS[known.protocol]
  pinfo.cols.info = known.name
  tree:add(fields.name, message.bytes:range(0, 4), known.name)
  message.protocol = known.protocol
  local branch = tree:add(protocols[known.protocol], message.bytes, PROTOCOLS[known.protocol] .. ": " .. known.name)
  local reached = known.structure == nil and 4 or show_fields(message, branch, STRUCTURES[known.structure], 0)
  if size < known.needed or (reached == nil and size >= known.needed and not message.may_end(known, size)) then
    branch:add_proto_expert_info(message.cut and cut or short)
  elseif reached ~= nil and math.max(reached, known.needed) < size then
    reached = math.max(reached, known.needed) -- behind the padding of the structure
    tree:add(fields.rest, message.bytes:range(reached, size - reached))
  end
end

-- A message that a sender may cut ends where it likes behind what is needed.
local function may_end(known, size)
  local last = STRUCTURES[known.structure]
  last = last[#last]
  return last ~= nil and last.kind == "text" and size >= known.needed
end

function itc.dissector(buffer, pinfo, root)
  local size = buffer:len()
  pinfo.cols.protocol = "ITC"
  local tree = root:add(itc, buffer(), "ITC message")
  if size < HEAD_SIZE or buffer(0, 1):uint() ~= HEAD_VERSION then
    tree:add_proto_expert_info(bad_head)
    return size
  end
  local sender_length, receiver_length = buffer(12, 1):uint(), buffer(13, 1):uint()
  local begins = buffer(14, 2):uint()
  if begins < HEAD_SIZE + sender_length + receiver_length or begins > size then
    tree:add_proto_expert_info(bad_head)
    return size
  end
  local flags = buffer(2, 2):uint()
  local sender_name, receiver_name = "", ""
  tree:add(fields.version, buffer(0, 1))
  tree:add(fields.direction, buffer(1, 1))
  tree:add(fields.flags, buffer(2, 2))
  tree:add(fields.sender, buffer(4, 4))
  tree:add(fields.receiver, buffer(8, 4))
  if sender_length > 0 then
    sender_name = text_of(buffer(HEAD_SIZE, sender_length))
    tree:add(fields.sender_name, buffer(HEAD_SIZE, sender_length), sender_name)
  end
  if receiver_length > 0 then
    receiver_name = text_of(buffer(HEAD_SIZE + sender_length, receiver_length))
    tree:add(fields.receiver_name, buffer(HEAD_SIZE + sender_length, receiver_length), receiver_name)
  end
  pinfo.cols.src = who(sender_name, buffer(4, 4):uint())
  pinfo.cols.dst = who(receiver_name, buffer(8, 4):uint())
  if begins == size then
    tree:add_proto_expert_info(flags % 2 >= FLAG_CUT and cut or short)
    return size
  end
  show_message({
    bytes = buffer:range(begins, size - begins),
    length = size - begins,
    little = math.floor(flags / FLAG_LITTLE_ENDIAN) % 2 == 1,
    cut = flags % 2 >= FLAG_CUT,
    may_end = may_end,
  }, pinfo, tree)
  return size
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, itc)

-- ---- Supervision frames
--
-- Wireshark reads the frame itself (eCPRI, one-way delay measurement). What it cannot know is who asked: the dummy bytes
-- of a ping begin with the session and the sequence number.

local ETHER_TYPE_ECPRI = 0xAEFE
local DELAY_MEASUREMENT = 5
local DUMMY_BYTES_AT = 24
local MARK_SIZE = 16

local ping = Proto("kap.ping", "Supervision frame of kap-vorn")
local ping_fields = {
  id = ProtoField.uint8("kap.ping.id", "Measurement id"),
  action = ProtoField.uint8("kap.ping.action", "Action", base.DEC, { [0] = "ping", [2] = "answer" }),
  session = ProtoField.uint32("kap.ping.session", "Session"),
  sequence = ProtoField.uint32("kap.ping.sequence", "Sequence number"),
  process = ProtoField.uint32("kap.ping.process", "Mark of the process", base.HEX),
  request = ProtoField.uint32("kap.ping.request", "Mark of the ping", base.HEX),
}
ping.fields = { ping_fields.id, ping_fields.action, ping_fields.session, ping_fields.sequence, ping_fields.process,
                ping_fields.request }

local ether_types = DissectorTable.get("ethertype")
local ecpri = ether_types:get_dissector(ETHER_TYPE_ECPRI)

function ping.dissector(buffer, pinfo, root)
  if ecpri ~= nil then
    ecpri:call(buffer, pinfo, root)
  end
  local size = buffer:len()
  if size < 6 or buffer(1, 1):uint() ~= DELAY_MEASUREMENT then
    return size
  end
  local tree = root:add(ping, buffer(), "Supervision frame of kap-vorn")
  tree:add(ping_fields.id, buffer(4, 1))
  tree:add(ping_fields.action, buffer(5, 1))
  local dummy_bytes = math.min(buffer(2, 2):uint() + 4, size) - DUMMY_BYTES_AT
  if dummy_bytes >= MARK_SIZE then -- a far end that is not ours may have others there
    tree:add(ping_fields.session, buffer(DUMMY_BYTES_AT, 4))
    tree:add(ping_fields.sequence, buffer(DUMMY_BYTES_AT + 4, 4))
    tree:add(ping_fields.process, buffer(DUMMY_BYTES_AT + 8, 4))
    tree:add(ping_fields.request, buffer(DUMMY_BYTES_AT + 12, 4))
  end
  return size
end

ether_types:add(ETHER_TYPE_ECPRI, ping)
