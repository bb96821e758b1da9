// What the automation agent is told of the links: their paths, status and latencies. While it is not there, it is told
// nothing but what it has asked for, and this is the one place that looks.
#pragma once

#include "iemli/iemli_messages.hpp"

// After a confirmed create or update.
void iml_link_create_path(uint32_t link_ref);
void iml_link_update_path(uint32_t link_ref);
// The link is no more; `data` is what it had.
void iml_link_delete_path(uint32_t link_ref, const IemliLinkData *data);
// Of every link, in ascending link_ref, because the agent has asked.
void iml_link_create_all_paths();

// Latencies in nanoseconds; all 0 when only the status changed.
void iml_link_path_info(uint32_t link_ref, uint32_t min_latency, uint32_t max_latency, uint32_t avg_latency,
                        iml_link_status status);
inline void iml_link_path_status(uint32_t link_ref, iml_link_status status)
{
    iml_link_path_info(link_ref, 0, 0, 0, status);
}
