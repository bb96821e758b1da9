// The words of a call of kap-link, as people write them. Pure functions.
#pragma once

#include "kap_iemli.h"

#include <string>
#include <vector>

namespace kap_link
{

// What is asked for.
struct wish {
    std::string port;
    uint16_t vlan = 0;
    uint8_t mp_id = 1;
    kap_iemli_mac far{};
    std::vector<kap_iemli_app_link> app_links;
    bool rtt = false;
    kap_iemli_rtt_settings rtt_settings{5, 1, 64};
    bool json = false;
};

// Each gives what is wrong; empty: nothing, and the wish has it.
std::string read_port(const std::string &word, wish &wanted);
std::string read_vlan(const std::string &word, wish &wanted);
std::string read_far(const std::string &word, wish &wanted);
std::string read_app_link(const std::string &word, wish &wanted);
std::string read_rtt(const std::string &word, wish &wanted); // BATCH,SECONDS,BYTES
std::string read_mp_id(const std::string &word, wish &wanted);

// PORT VLAN FAR-CPM-MAC [NEAR-MAC,FAR-MAC...]
std::string read_words(const std::vector<std::string> &words, wish &wanted);

// Six bytes of two hexadecimal digits each, a colon (or everywhere a minus) between each two.
bool read_mac(const std::string &word, kap_iemli_mac *mac);
// Nothing but decimal digits, from `least` to `most`.
bool read_number(const std::string &word, uint32_t least, uint32_t most, uint32_t *number);

} // namespace kap_link
