// The answer to a create, update or delete once its procedure is over.
#pragma once

#include "manager/links/link_reports.hpp"

// Both end the session's waiting, answer it when it is still there, and free *pending and null it.
void iemli_answer_confirmed(uint32_t link_ref, IemliPendingRequest **pending);
void iemli_answer_rejected(uint32_t reason, IemliPendingRequest **pending);
