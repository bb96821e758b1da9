// Who hears of a status: see link_status.hpp.
#include "link_status.hpp"

#include "link_paths.hpp"
#include "link_reports.hpp"

void iml_link_change_status(iml_link *link, uint32_t status, uint32_t disabled_reason)
{
    iml_link_write_status(link, status, disabled_reason);
    links_report()->status(link->connection_ref, link->link_ref, status, disabled_reason);
    iml_link_path_status(link->link_ref, status);
}
