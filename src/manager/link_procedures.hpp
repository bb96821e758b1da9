// Link procedures: a create, update or delete remembered until every lower-layer step has answered, then finished or
// unwound. Also takes the results of PMI and EMI and the port events of IEPCSI to the procedures and links they
// concern.
#pragma once

#include "link_reports.hpp"
#include "vorn_types.hpp"

enum proc_step_state : uint32_t {
    PROC_STEP_IDLE = 0,
    PROC_STEP_ONGOING = 1,
    PROC_STEP_OK = 2,
    PROC_STEP_FAILED = 3,
};

// All three take *request over, and may answer it (and null it, and take the next queued request) before they return.
// `data` and `app_links` stay the caller's and are copied before anything is answered.
void iml_link_create(const IemliLinkData *data, IemliPendingRequest **request);
void iml_link_update(IemliPendingRequest **request, uint32_t number_of_app_links, const IemliAppLink *app_links);
// `request` may be null (a session ended). Returns false when no procedure was opened: then the request was not
// answered and is still the caller's.
bool iml_link_delete(uint32_t link_ref, uint32_t connection_ref, IemliPendingRequest **request);
// Nobody has asked, and nobody is answered.
void iml_link_delete_all_of_connection(uint32_t connection_ref);

void handle_link_event(const client_event &event);
void handle_port_event(const client_event &event);

// How many procedures are open.
uint32_t link_procedure_count();
// Frees every open procedure and its request; answers nobody.
void link_procedures_forget_all();
