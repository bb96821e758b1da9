#include "words.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <string_view>

#include "port_names.hpp"

namespace kap_link
{

namespace
{

constexpr size_t MAC_LENGTH = 17;

bool is_nobody(const kap_iemli_mac &mac)
{
    return std::all_of(std::begin(mac.byte), std::end(mac.byte), [](uint8_t byte) { return byte == 0; });
}

bool is_group(const kap_iemli_mac &mac) { return (mac.byte[0] & 1) != 0; }

// Of somebody who can be written to.
std::string read_address(const std::string &word, kap_iemli_mac *mac)
{
    if (!read_mac(word, mac)) {
        return "not a MAC address like 02:00:00:00:00:01: " + word;
    }
    if (is_group(*mac)) {
        return "a group's address, not that of one: " + word;
    }
    return is_nobody(*mac) ? "nobody's address: " + word : "";
}

std::vector<std::string> parts_of(const std::string &word, char between)
{
    std::vector<std::string> parts{""};
    for (const char c : word) {
        if (c == between) {
            parts.emplace_back();
        } else {
            parts.back() += c;
        }
    }
    return parts;
}

} // namespace

bool read_number(const std::string &word, uint32_t least, uint32_t most, uint32_t *number)
{
    const char *end = word.data() + word.size();
    uint32_t read = 0;
    const auto [stopped, error] = std::from_chars(word.data(), end, read);
    if (error != std::errc{} || stopped != end || read < least || read > most) {
        return false;
    }
    *number = read;
    return true;
}

bool read_mac(const std::string &word, kap_iemli_mac *mac)
{
    if (word.size() != MAC_LENGTH || (word[2] != ':' && word[2] != '-')) {
        return false;
    }
    kap_iemli_mac read{};
    for (size_t i = 0; i < sizeof read.byte; i++) {
        const char *digits = word.data() + 3 * i;
        const auto [stopped, error] = std::from_chars(digits, digits + 2, read.byte[i], 16);
        if (error != std::errc{} || stopped != digits + 2 || (i < 5 && digits[2] != word[2])) {
            return false;
        }
    }
    *mac = read;
    return true;
}

std::string read_port(const std::string &word, wish &wanted)
{
    if (std::none_of(std::begin(PORT_NAMES), std::end(PORT_NAMES),
                     [&](const port_names &port) { return word == port.iemli; })) {
        std::string known;
        for (const port_names &port : PORT_NAMES) {
            known += (known.empty() ? "" : ", ") + std::string(port.iemli);
        }
        return "no port (" + known + "): " + word;
    }
    wanted.port = word;
    return "";
}

std::string read_vlan(const std::string &word, wish &wanted)
{
    uint32_t vlan = 0;
    if (!read_number(word, 1, KAP_IEMLI_LAST_VLAN, &vlan)) {
        return "not a VLAN from 1 to 4094: " + word;
    }
    wanted.vlan = static_cast<uint16_t>(vlan);
    return "";
}

std::string read_far(const std::string &word, wish &wanted) { return read_address(word, &wanted.far); }

std::string read_app_link(const std::string &word, wish &wanted)
{
    const std::vector<std::string> macs = parts_of(word, ',');
    if (macs.size() != 2) {
        return "not a pair of applications (NEAR-MAC,FAR-MAC): " + word;
    }
    kap_iemli_app_link pair{};
    std::string wrong = read_address(macs[0], &pair.near_end);
    if (wrong.empty()) {
        wrong = read_address(macs[1], &pair.far_end);
    }
    if (wrong.empty()) {
        wanted.app_links.push_back(pair);
    }
    return wrong;
}

std::string read_rtt(const std::string &word, wish &wanted)
{
    const std::vector<std::string> numbers = parts_of(word, ',');
    uint32_t batch = 0;
    uint32_t interval = 0;
    uint32_t bytes = 0;
    if (numbers.size() != 3 || !read_number(numbers[0], 2, 60, &batch) || !read_number(numbers[1], 1, 30, &interval) ||
        !read_number(numbers[2], 64, 1500, &bytes) || 60 % (batch * interval) != 0) {
        return "not BATCH,SECONDS,BYTES with 2 to 60 pings, 1 to 30 seconds apart, whole batches in a minute, and "
               "frames "
               "of 64 to 1500 bytes: " +
               word;
    }
    wanted.rtt = true;
    wanted.rtt_settings = {static_cast<uint16_t>(batch), static_cast<uint16_t>(interval), static_cast<uint16_t>(bytes)};
    return "";
}

std::string read_mp_id(const std::string &word, wish &wanted)
{
    uint32_t mp_id = 0;
    if (!read_number(word, 1, KAP_IEMLI_LAST_MP_ID, &mp_id)) {
        return "not a processor from 1 to 63: " + word;
    }
    wanted.mp_id = static_cast<uint8_t>(mp_id);
    return "";
}

std::string read_words(const std::vector<std::string> &words, wish &wanted)
{
    if (words.size() < 3) {
        return "which link? PORT VLAN FAR-CPM-MAC";
    }
    std::string wrong = read_port(words[0], wanted);
    wrong = wrong.empty() ? read_vlan(words[1], wanted) : wrong;
    wrong = wrong.empty() ? read_far(words[2], wanted) : wrong;
    for (size_t i = 3; wrong.empty() && i < words.size(); i++) {
        wrong = read_app_link(words[i], wanted);
    }
    return wrong;
}

} // namespace kap_link
