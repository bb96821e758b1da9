// The change of a link's status.
#pragma once

#include "manager/table/link_table.hpp"

// Writes the status and tells the link's owner and the automation agent.
void iml_link_change_status(iml_link *link, uint32_t status, uint32_t disabled_reason);
