// The app links of a request or of a link, sorted, so that looking one up does not walk them all: how many there are is
// up to the client. Few are searched one by one, and so are many when there is no memory for more; the answers are the
// same.
//
// An index owns its entries, not the app links it was built from; those must stay while it is used.
#pragma once

#include "iemli/iemli_messages.hpp"

struct app_link_entry;

struct app_link_index {
    const IemliAppLink *app_links;
    uint32_t count;
    app_link_entry *entries; // owned, in order; null: there are none, the app links are searched one by one
};

app_link_index app_link_index_build(const IemliAppLink *app_links, uint32_t count);
void app_link_index_free(app_link_index *index);

// Both MACs equal.
bool app_link_index_has(const app_link_index &index, const IemliAppLink &app_link);
bool app_link_index_has_far_end(const app_link_index &index, const mac_address &far_end);
// Whether one of the first `limit` app links occurs again anywhere behind itself.
bool app_link_index_repeats(const app_link_index &index, uint32_t limit);
