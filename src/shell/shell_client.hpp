// The operator's request for the list of links, answered with one fixed-size record per link.
#pragma once

#include "itc.h"
#include "manager/table/link_table.hpp"
#include "shell_messages.hpp"

// Over the valid samples; all zero when there is none.
struct shell_rtt_statistics {
    bool present;
    shell_rtt minimum;
    shell_rtt average;
    shell_rtt maximum;
};

// True for the list request.
bool shell_client_dispatch(const itc_msg *msg);

// `table`: the first link, or null.
uint32_t count_links(const iml_link *table);
void fill_link_list_entry(shell_link_record *record, const iml_link *link);
void compute_rtt_statistics(const rtt_sample_queue *samples, shell_rtt_statistics *out);
