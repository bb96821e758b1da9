// Everything is copied out of the message before it is looked at: a record has no alignment that could be relied on.
#include "link_list.hpp"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>

#include <nlohmann/json.hpp>

namespace link_list
{

namespace
{

constexpr const char *DAEMON = "kap-vorn";
constexpr size_t RECORDS_OFFSET = offsetof(shell_link_list, records);

__attribute__((format(printf, 1, 2))) std::string format(const char *text, ...)
{
    char line[256];
    va_list args;
    va_start(args, text);
    (void)vsnprintf(line, sizeof line, text, args);
    va_end(args);
    return line;
}

// As MAC_FMT has it.
std::string mac_text(const mac_address &mac)
{
    constexpr const char *DIGITS = "0123456789ABCDEF";
    const unsigned bytes[] = {MAC_ARGS(mac)};
    std::string text(3 * std::size(bytes) - 1, ':');
    for (size_t i = 0; i < std::size(bytes); ++i) {
        text[3 * i] = DIGITS[bytes[i] >> 4 & 0xF];
        text[3 * i + 1] = DIGITS[bytes[i] & 0xF];
    }
    return text;
}

std::string status_text(const shell_link_record &record)
{
    return record.status == IML_LINK_ENABLED
               ? "enabled"
               : iml_link_disabled_text(record.disabled_reason, "disabled with invalid reason");
}

const char *reason_of(const shell_link_record &record)
{
    return record.status == IML_LINK_ENABLED ? "" : iml_link_reason_text(record.disabled_reason, "");
}

std::string name_of(uint32_t value, const char *zero, const char *one, const char *other)
{
    return value == 0 ? zero : value == 1 ? one : other;
}

double microseconds(const shell_rtt &value) { return value.microseconds + value.hundredths / 100.0; }

link link_of(const shell_link_record &record)
{
    link out = {};
    out.connection_ref = record.connection_ref;
    out.link_ref = record.link_ref;
    out.mp_id = record.near_end_mp_id;
    out.near_end_cpm_mac = mac_text(record.near_end_cpm_mac);
    out.far_end_cpm_mac = mac_text(record.far_end_cpm_mac);
    out.port.assign(record.port_name, strnlen(record.port_name, sizeof record.port_name));
    out.vlan = record.vlan_id;
    for (uint32_t i = 0; i < std::min(record.app_link_count, SHELL_MAX_APP_LINKS); ++i) {
        out.app_links.push_back(
            {mac_text(record.app_links[i].nearEndAppMac), mac_text(record.app_links[i].farEndAppMac)});
    }
    out.enabled = record.status == IML_LINK_ENABLED;
    out.reason = reason_of(record);
    out.status = status_text(record);
    out.rtt = name_of(record.rtt_state, "off", "on", "unknown");
    out.supervision = name_of(record.supervision_state, "not running", "running", "failed");
    out.batch_size = record.rtt.batchSize;
    out.interval_s = record.rtt.measureInterval;
    out.frame_size = record.rtt.frameSize;
    out.results = record.supervision_results;
    out.lost = record.supervision_lost;
    if (record.rtt_present == 1) {
        out.rtt_us = round_trip{microseconds(record.rtt_minimum), microseconds(record.rtt_average),
                                microseconds(record.rtt_maximum)};
    }
    return out;
}

// ---- JSON, two blanks for each level: written, not built, because there may be a thousand links

// A port's name is whatever the daemon was told: bytes that are no text are replaced.
std::string quoted(const std::string &text)
{
    const bool plain =
        std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; });
    return plain ? '"' + text + '"'
                 : nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string app_links_text(const std::vector<app_link> &apps)
{
    std::string text = "[";
    for (const app_link &app : apps) {
        text += text.size() == 1 ? "\n" : ",\n";
        text += "        {\n          \"near_end_mac\": " + quoted(app.near_end_mac) +
                ",\n          \"far_end_mac\": " + quoted(app.far_end_mac) + "\n        }";
    }
    return text + (apps.empty() ? "]" : "\n      ]");
}

std::string rtt_text(const std::optional<round_trip> &rtt)
{
    const auto number = [](double value) { return nlohmann::json(value).dump(); };
    return !rtt ? "null"
                : "{\n        \"min\": " + number(rtt->minimum_us) + ",\n        \"avg\": " + number(rtt->average_us) +
                      ",\n        \"max\": " + number(rtt->maximum_us) + "\n      }";
}

void append_link(std::string &to, const link &l)
{
    const char *before = "    {\n      \"";
    const auto member = [&](const char *name, const std::string &value) {
        to.append(before).append(name).append("\": ").append(value);
        before = ",\n      \"";
    };
    member("link_ref", std::to_string(l.link_ref));
    member("connection_ref", std::to_string(l.connection_ref));
    member("port", quoted(l.port));
    member("vlan", std::to_string(l.vlan));
    member("mp_id", std::to_string(l.mp_id));
    member("near_end_cpm_mac", quoted(l.near_end_cpm_mac));
    member("far_end_cpm_mac", quoted(l.far_end_cpm_mac));
    member("app_links", app_links_text(l.app_links));
    member("enabled", l.enabled ? "true" : "false");
    member("status", quoted(l.status));
    member("supervision", quoted(l.supervision));
    member("results", std::to_string(l.results));
    member("lost", std::to_string(l.lost));
    member("rtt", quoted(l.rtt));
    member("batch_size", std::to_string(l.batch_size));
    member("interval_s", std::to_string(l.interval_s));
    member("frame_size", std::to_string(l.frame_size));
    member("rtt_us", rtt_text(l.rtt_us));
    if (!l.name.empty()) {
        member("name", quoted(l.name));
    }
    to += "\n    }";
}

text_table::row cells_of(const link &l)
{
    using text_table::colour;
    const bool sampled = l.rtt_us.has_value();
    return {format("%u", l.link_ref),
            l.port,
            format("%u", l.vlan),
            l.far_end_cpm_mac,
            format("%zu", l.app_links.size()),
            {l.status, l.enabled ? colour::good : colour::bad},
            {l.supervision, l.supervision == "failed" ? colour::bad : colour::none},
            format("%u/%u", l.lost, l.results),
            l.rtt,
            sampled ? format("%.2f", l.rtt_us->minimum_us) : "-",
            sampled ? format("%.2f", l.rtt_us->average_us) : "-",
            sampled ? format("%.2f", l.rtt_us->maximum_us) : "-",
            format("%u", l.connection_ref)};
}

} // namespace

std::optional<std::vector<link>> decode(const uint8_t *bytes, size_t size, std::string *error)
{
    uint32_t head[2] = {}; // number, count
    if (size < sizeof head) {
        *error = format("the reply has only %zu bytes", size);
        return std::nullopt;
    }
    memcpy(head, bytes, sizeof head);
    if (head[0] != IECTM_COLI_IML_LINK_LIST_RSP) {
        *error = format("the reply has number 0x%x", head[0]);
        return std::nullopt;
    }
    if (size - RECORDS_OFFSET < uint64_t{head[1]} * sizeof(shell_link_record)) {
        *error = format("the reply counts %u links, but has only %zu bytes", head[1], size);
        return std::nullopt;
    }
    std::vector<link> links;
    links.reserve(head[1]);
    for (uint32_t i = 0; i < head[1]; ++i) {
        shell_link_record record;
        memcpy(&record, bytes + RECORDS_OFFSET + i * sizeof record, sizeof record);
        links.push_back(link_of(record));
    }
    return links;
}

std::optional<std::vector<link>> fetch(uint32_t timeout_ms, std::string *error)
{
    const uint32_t daemon = itc_locate(DAEMON);
    if (daemon == ITC_NO_MBOX) {
        *error = "kap-vorn does not run";
        return std::nullopt;
    }
    itc_msg *request = itc_alloc(sizeof(itc_msg), IECTM_COLI_IML_LINK_LIST_REQ);
    itc_send(&request, daemon, ITC_MY_MBOX);
    const uint32_t filter[] = {1, IECTM_COLI_IML_LINK_LIST_RSP};
    itc_msg *reply = itc_receive(filter, timeout_ms, daemon);
    if (reply == nullptr) {
        *error = format("kap-vorn did not answer within %u ms", timeout_ms);
        return std::nullopt;
    }
    auto links = decode(reinterpret_cast<const uint8_t *>(reply), itc_size(reply), error);
    itc_free(&reply);
    return links;
}

std::vector<text_table::row> to_rows(const std::vector<link> &links)
{
    std::vector<text_table::row> rows = {{"LINK", "PORT", "VLAN", "FAR-END CPM", "APPS", "STATUS", "SUPERVISION",
                                          "LOST", "RTT", "MIN us", "AVG us", "MAX us", "OWNER"}};
    const bool named = std::any_of(links.begin(), links.end(), [](const link &l) { return !l.name.empty(); });
    if (named) {
        rows[0].insert(rows[0].begin() + 1, "NAME");
    }
    for (const link &l : links) {
        rows.push_back(cells_of(l));
        if (named) {
            rows.back().insert(rows.back().begin() + 1, l.name.empty() ? "-" : l.name);
        }
    }
    return rows;
}

std::string to_table(const std::vector<link> &links, size_t columns)
{
    return text_table::draw(to_rows(links), columns, false);
}

std::string to_table(const std::vector<link> &links) { return to_table(links, SIZE_MAX); }

std::string to_json_array(const std::vector<link> &links)
{
    constexpr size_t USUAL_BYTES = 800;
    std::string text = "[";
    text.reserve(links.size() * USUAL_BYTES);
    for (const link &l : links) {
        append_link(text += text.size() == 1 ? "\n" : ",\n", l);
    }
    text += links.empty() ? "]" : "\n  ]";
    return text;
}

std::string to_json(const std::vector<link> &links) { return "{\n  \"links\": " + to_json_array(links) + "\n}\n"; }

} // namespace link_list
