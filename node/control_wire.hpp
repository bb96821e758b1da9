// The control protocol of the reference node: one request, one reply, understood by every service on its own mailbox.
//
//   0        4       8
//   +--------+-------+-----------------------------
//   | number | tag   | JSON text, not terminated       host byte order
//   +--------+-------+-----------------------------
//
// Request: {"command": ["fault", "reject", "PMI_ENABLE_PORT_VLAN_REQ", "1", "4"]}.
// Reply, with the tag of its request: {"ok": true, "result": ...} or {"ok": false, "error": "..."}.
#pragma once

#include "message.hpp"
#include "program.hpp"

namespace kap_node
{

inline constexpr uint32_t CONTROL_REQUEST = 0x1B9000;
inline constexpr uint32_t CONTROL_REPLY = 0x1B9001;

inline constexpr size_t CONTROL_TEXT_AT = 8;
inline constexpr size_t CONTROL_REQUEST_MOST = 65536;
inline constexpr size_t CONTROL_WORDS_MOST = 64;

inline bytes control_message(uint32_t number, uint32_t tag, const json &content)
{
    const std::string text = content.dump(-1, ' ', false, json::error_handler_t::replace);
    return message_writer()
        .host_word(number)
        .host_word(tag)
        .append({reinterpret_cast<const uint8_t *>(text.data()), text.size()})
        .take();
}

inline uint32_t control_tag(std::span<const uint8_t> message)
{
    uint32_t tag = 0;
    if (message.size() >= CONTROL_TEXT_AT) {
        memcpy(&tag, message.data() + 4, sizeof tag);
    }
    return tag;
}

// The JSON of a message; discarded when it has none.
inline json control_content(std::span<const uint8_t> message)
{
    if (message.size() <= CONTROL_TEXT_AT) {
        return json(json::value_t::discarded);
    }
    const auto text = message.subspan(CONTROL_TEXT_AT);
    return json::parse(text.begin(), text.end(), nullptr, false);
}

// The words of a request; throws command_error.
inline arguments control_words(std::span<const uint8_t> message)
{
    if (message.size() > CONTROL_REQUEST_MOST) {
        throw command_error("a request of more than " + std::to_string(CONTROL_REQUEST_MOST) + " bytes");
    }
    const json content = control_content(message);
    if (!content.is_object() || !content.contains("command") || !content["command"].is_array()) {
        throw command_error("no JSON object with a list \"command\"");
    }
    const json &list = content["command"];
    if (list.empty() || list.size() > CONTROL_WORDS_MOST) {
        throw command_error("a command has 1 to " + std::to_string(CONTROL_WORDS_MOST) + " words");
    }
    arguments words;
    for (const json &word : list) {
        if (!word.is_string()) {
            throw command_error("a word of the command is no string");
        }
        words.push_back(word.get<std::string>());
    }
    return words;
}

// Has a program carry out a request and gives the reply to it.
inline bytes control_answer(program &runs, std::span<const uint8_t> message)
{
    json reply;
    try {
        reply = {{"ok", true}, {"result", runs.control(control_words(message))}};
    } catch (const command_error &problem) {
        reply = {{"ok", false}, {"error", problem.what()}};
    }
    return control_message(CONTROL_REPLY, control_tag(message), reply);
}

// The result in a reply, or a command_error with the reason it gives. Whatever the reply is: nothing of it is taken for
// something that it is not.
inline json control_result(const json &reply)
{
    const bool good = reply.is_object() && reply.contains("ok") && reply["ok"] == true;
    if (good) {
        return reply.value("result", json());
    }
    const bool reason = reply.is_object() && reply.contains("error") && reply["error"].is_string();
    throw command_error(reason ? reply["error"].get<std::string>() : "no reason given");
}

} // namespace kap_node
