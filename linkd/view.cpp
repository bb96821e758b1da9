// The JSON of a link as it stands (view.hpp).
#include "view.hpp"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <iterator>
#include <limits>

namespace linkd
{

std::string text_of(const mac_bytes &mac)
{
    char text[18];
    (void)snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return text;
}

namespace
{

// What a text is in JSON; what of it is no text is replaced.
void append_text(std::string &to, const std::string &text)
{
    const bool plain =
        std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; });
    if (plain) {
        to.append(1, '"').append(text).append(1, '"');
    } else {
        to += nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    }
}

template <typename NUMBER> void append_number(std::string &to, NUMBER number)
{
    std::array<char, 24> room{};
    to.append(room.data(), std::to_chars(room.data(), room.data() + room.size(), number).ptr);
}

// Nanoseconds as microseconds: "40.123".
void append_us(std::string &to, uint64_t ns)
{
    constexpr uint64_t THOUSAND = 1000;
    append_number(to, ns / THOUSAND);
    std::string digits = std::to_string(THOUSAND + ns % THOUSAND);
    digits[0] = '.';
    while (digits.size() > 2 && digits.back() == '0') {
        digits.pop_back();
    }
    to += digits;
}

void append_app_links(std::string &to, const link_view &view)
{
    to += '[';
    for (const app_pair &pair : view.app_links) {
        to += to.back() == '[' ? R"({"far":")" : R"(,{"far":")";
        to += text_of(pair.far) + R"(","near":")" + text_of(pair.near) + R"("})";
    }
    to += ']';
}

void append_rtt(std::string &to, const link_view &view)
{
    if (!view.rtt) {
        to += "false";
        return;
    }
    append_number(to += R"({"batch":)", view.rtt->batch);
    append_number(to += R"(,"frame_bytes":)", view.rtt->frame_bytes);
    append_number(to += R"(,"interval":)", view.rtt->interval);
    to += '}';
}

void append_rtt_us(std::string &to, const link_view &view)
{
    if (!view.last_rtt || view.last_rtt->valid == 0) {
        to += "null";
        return;
    }
    append_us(to += R"({"avg":)", view.last_rtt->average_ns);
    append_us(to += R"(,"max":)", view.last_rtt->longest_ns);
    append_us(to += R"(,"min":)", view.last_rtt->shortest_ns);
    to += '}';
}

struct link_member {
    std::string_view name;
    void (*append)(std::string &to, const link_view &view);
};

// In the order in which they are told.
constexpr link_member MEMBERS[] = {
    {"app_links", append_app_links},
    {"far", [](std::string &to, const link_view &view) { append_text(to, view.link.far); }},
    {"file", [](std::string &to, const link_view &view) { append_text(to, view.file); }},
    {"flaps_today", [](std::string &to, const link_view &view) { append_number(to, view.flaps_today); }},
    {"link_ref", [](std::string &to, const link_view &view) { append_number(to, view.link_ref); }},
    {"lost", [](std::string &to, const link_view &view) { append_number(to, view.lost); }},
    {"name", [](std::string &to, const link_view &view) { append_text(to, view.link.name); }},
    {"near_mac", [](std::string &to, const link_view &view) { append_text(to, view.near_mac); }},
    {"near_mp", [](std::string &to, const link_view &view) { append_number(to, int{view.near_mp}); }},
    {"next_try_us", [](std::string &to, const link_view &view) { append_number(to, view.next_try_us); }},
    {"port", [](std::string &to, const link_view &view) { append_text(to, view.link.port); }},
    {"reason", [](std::string &to, const link_view &view) { append_text(to, view.reason); }},
    {"results", [](std::string &to, const link_view &view) { append_number(to, view.results); }},
    {"rtt", append_rtt},
    {"rtt_us", append_rtt_us},
    {"since_us", [](std::string &to, const link_view &view) { append_number(to, view.since_us); }},
    {"source", [](std::string &to, const link_view &view) { append_text(to, view.declared ? "declared" : "runtime"); }},
    {"state", [](std::string &to, const link_view &view) { append_text(to, name_of(view.state)); }},
    {"vlan", [](std::string &to, const link_view &view) { append_number(to, view.link.vlan); }},
};
static_assert(std::size(MEMBERS) <= std::numeric_limits<link_members>::digits);

} // namespace

link_members member_bit(std::string_view name)
{
    link_members bit = 1;
    for (const link_member &each : MEMBERS) {
        if (each.name == name) {
            return bit;
        }
        bit <<= 1;
    }
    return 0;
}

void append_json(std::string &to, const link_view &view, link_members wanted)
{
    char separator = '{';
    for (const link_member &each : MEMBERS) {
        if ((wanted & 1U) != 0) {
            to.append(1, separator).append(1, '"').append(each.name).append("\":");
            each.append(to, view);
            separator = ',';
        }
        wanted >>= 1;
    }
    to += separator == '{' ? "{}" : "}";
}

nlohmann::json json_of(const link_view &view)
{
    std::string text;
    append_json(text, view);
    return nlohmann::json::parse(text);
}

} // namespace linkd
