// Keeps who is told, and tells of a status: see link_reports.hpp.
#include "link_reports.hpp"

#include "link_paths.hpp"

namespace
{

const link_reports *current;

} // namespace

void links_report_to(const link_reports *reports) { current = reports; }

const link_reports *links_report() { return current; }

void iml_link_change_status(iml_link *link, uint32_t status, uint32_t disabled_reason)
{
    iml_link_write_status(link, status, disabled_reason);
    current->status(link->connection_ref, link->link_ref, status, disabled_reason);
    iml_link_path_status(link->link_ref, status);
}
