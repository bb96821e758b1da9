// The words of kap-link, one per line: whatever they are, they are refused with a reason or mean what they say.
#include "words.hpp"

#include "input.hpp"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace
{

using fuzz::require;

std::string text_of(const kap_iemli_mac &mac)
{
    char text[18];
    (void)snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac.byte[0], mac.byte[1], mac.byte[2],
                   mac.byte[3], mac.byte[4], mac.byte[5]);
    return text;
}

std::string as_written_by_us(std::string word)
{
    std::transform(word.begin(), word.end(), word.begin(),
                   [](unsigned char c) { return c == '-' ? ':' : static_cast<char>(tolower(c)); });
    return word;
}

bool holds(const kap_link::wish &wanted)
{
    return wanted.vlan >= 1 && wanted.vlan <= KAP_IEMLI_LAST_VLAN && wanted.port.size() <= KAP_IEMLI_PORT_NAME_LENGTH &&
           (wanted.far.byte[0] & 1) == 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::vector<std::string> words{""};
    for (size_t i = 0; i < size; i++) {
        if (data[i] == '\n') {
            words.emplace_back();
        } else {
            words.back() += static_cast<char>(data[i]);
        }
    }
    kap_link::wish wanted;
    if (kap_link::read_words(words, wanted).empty()) {
        require(holds(wanted), "what is taken is a link");
        require(text_of(wanted.far) == as_written_by_us(words[2]), "an address is what was written");
        require(wanted.app_links.size() == words.size() - 3, "each pair is taken");
    }
    for (const std::string &word : words) {
        kap_iemli_mac mac{};
        uint32_t number = 0;
        require(!kap_link::read_mac(word, &mac) || text_of(mac) == as_written_by_us(word), "as above");
        require(!kap_link::read_number(word, 5, 70000, &number) || (number >= 5 && number <= 70000),
                "within its bounds");
        if (kap_link::read_rtt(word, wanted).empty()) {
            const kap_iemli_rtt_settings &s = wanted.rtt_settings;
            require(60 % (s.batch * s.interval) == 0, "whole batches in a minute");
        }
        (void)kap_link::read_mp_id(word, wanted);
    }
    return 0;
}
