// Link procedures: a create, update or delete remembered until every lower-layer step has answered, then finished or
// unwound.
#pragma once

#include "procedure_record.hpp"
#include "vorn_types.hpp"

// While there is no answer yet they have taken *request over (and nulled it), and the answer comes as a report. Else
// the procedure is over, the answer is what is returned, and *request is still the caller's, who tells the one who
// asked. `data` and `app_links` stay the caller's.
link_answer iml_link_create(const IemliLinkData *data, IemliPendingRequest **request);
link_answer iml_link_update(IemliPendingRequest **request, uint32_t number_of_app_links, const IemliAppLink *app_links);
// `request` may be null (a session ended). Returns false when no procedure was opened: then the request was not
// answered and is still the caller's.
bool iml_link_delete(uint32_t link_ref, uint32_t connection_ref, IemliPendingRequest **request);
// Nobody has asked, and nobody is answered.
void iml_link_delete_all_of_connection(uint32_t connection_ref);

// Does what comes next, tells the one who asked, and frees the procedure when nothing is left to do.
void link_proc_evaluate(iml_link_proc *proc);
