// Keeps the record: see fmi_record.hpp.
#include "fmi_record.hpp"

#include <iterator>

namespace
{

client_record client;

} // namespace

client_record *fmi_client_record() { return &client; }

uint32_t fmi_client_state() { return client.state; }

const char *fmi_client_state_to_string(uint32_t state)
{
    static constexpr const char *TEXTS[] = {"INIT", "INITIATING", "GET_CAPABILITY", "INITIATED", "FAULTY"};
    return client_state_text(TEXTS, std::size(TEXTS), state);
}
