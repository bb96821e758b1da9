// Keeps who is told, and tells of a status: see link_reports.hpp.
#include "link_reports.hpp"

#include "link_paths.hpp"

namespace
{

const link_reports *current;

} // namespace

void links_report_to(const link_reports *reports) { current = reports; }

const link_reports *links_report() { return current; }

void link_tell_status(uint32_t server_conn_ref, uint32_t link_ref, iml_link_status status,
                      iml_link_disabled_reason disabled_reason)
{
    current->status(server_conn_ref, link_ref, status, disabled_reason);
    iml_link_path_status(link_ref, status);
}
