// The common core of the services (service.hpp).
#include "service.hpp"

#include <algorithm>
#include <charconv>

namespace kap_node
{

namespace
{

// Where the versions of a connection request stand: after the head, or after the head and their count.
constexpr size_t FIXED_VERSIONS_AT = HEAD_SIZE;
constexpr size_t VERSION_COUNT_AT = HEAD_SIZE;
constexpr size_t VERSIONS_AT = HEAD_SIZE + 4;
constexpr millis KEPT_AFTER_THE_END_MS = 10'000;
constexpr uint32_t LONGEST_DELAY_MS = 24 * 3600 * 1000;

bytes message_with_head(uint32_t number, uint32_t procedure_ref, uint32_t connection_ref, const bytes &fields)
{
    return message_writer().host_word(number).word(procedure_ref).word(connection_ref).append(fields).take();
}

bool offers_our_version(const message_view &message, size_t first, uint32_t count)
{
    for (uint32_t i = 0; i < count; ++i) {
        if (message.word(first + size_t{i} * 4) == PROTOCOL_VERSION) {
            return true;
        }
    }
    return false;
}

uint8_t hex_digit(char digit)
{
    uint8_t value = 0;
    if (std::from_chars(&digit, &digit + 1, value, 16).ec != std::errc{}) {
        throw command_error(std::string("not a hexadecimal digit: ") + digit);
    }
    return value;
}

bytes parse_hex(const std::string &text)
{
    if (text.size() % 2 != 0) {
        throw command_error("an odd number of hexadecimal digits");
    }
    bytes data;
    for (size_t i = 0; i < text.size(); i += 2) {
        data.push_back(static_cast<uint8_t>(hex_digit(text[i]) << 4 | hex_digit(text[i + 1])));
    }
    return data;
}

} // namespace

std::string hex_text(std::span<const uint8_t> data)
{
    static const char *digits = "0123456789ABCDEF";
    std::string text;
    for (const uint8_t byte : data) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

std::string mac_text(const mac &value)
{
    std::string text;
    for (const uint8_t &byte : value) {
        text += (text.empty() ? "" : ":") + hex_text({&byte, 1});
    }
    return text;
}

verdict confirmed(bytes fields) { return {std::nullopt, std::move(fields)}; }

verdict rejected(uint32_t reason) { return {reason, {}}; }

service::service(const protocol &definition, outlet &out, size_t max_clients)
    : protocol_(definition), out_(out), max_clients_(max_clients)
{
    for (const request_kind &kind : protocol_.requests) {
        counters_.received[kind.number] = 0;
    }
}

// ---- Requests ------------------------------------------------------------------------------------------------------

void service::receive(mailbox sender, std::span<const uint8_t> data, millis now)
{
    const message_view message(data);
    const request_kind *kind = find_request(message.number());
    if (kind == nullptr) {
        ++counters_.unknown_number;
        return;
    }
    ++counters_.received[kind->number];
    const auto effect = faults_.take(kind->number);
    if (effect && effect->kind == fault_kind::silent) {
        ++counters_.kept_silent;
        return;
    }
    if (effect && effect->kind == fault_kind::delay) {
        due_ = now + effect->value;
    }
    const bool told_to_reject = effect && effect->kind == fault_kind::reject;
    answer(*kind, sender, message, told_to_reject ? rejected(effect->value) : judge(*kind, sender, message));
    due_.reset();
}

const request_kind *service::find_request(uint32_t number) const
{
    const auto found = std::find_if(protocol_.requests.begin(), protocol_.requests.end(),
                                    [&](const request_kind &kind) { return kind.number == number; });
    return found == protocol_.requests.end() ? nullptr : &*found;
}

verdict service::judge(const request_kind &kind, mailbox sender, const message_view &message)
{
    if (message.size() < kind.min_size) {
        ++counters_.too_short;
        return rejected(protocol_.reason.too_short);
    }
    if (kind.number == protocol_.establish_req) {
        return establish(kind, sender, message);
    }
    const auto found = clients_.find(sender);
    if (found == clients_.end() || found->second.connection_ref != message.connection_ref()) {
        ++counters_.unknown_connection;
        return rejected(protocol_.reason.unknown_connection);
    }
    ++found->second.requests;
    if (kind.number == protocol_.capability_req) {
        return list_capabilities();
    }
    return perform(kind, found->second, message);
}

// A mailbox has one connection: a client that connects again has forgotten the first.
verdict service::establish(const request_kind & /*kind*/, mailbox sender, const message_view &message)
{
    const bool fixed = protocol_.versions_at_fixed_place > 0;
    const size_t first = fixed ? FIXED_VERSIONS_AT : VERSIONS_AT;
    const uint32_t count = fixed ? protocol_.versions_at_fixed_place : message.word(VERSION_COUNT_AT);
    if (!message.holds(first, count, 4)) {
        ++counters_.too_short;
        return rejected(protocol_.reason.too_short);
    }
    if (!offers_our_version(message, first, count)) {
        return rejected(protocol_.reason.bad_version);
    }
    const bool known = clients_.contains(sender);
    if (!known && clients_.size() >= max_clients_) {
        return rejected(protocol_.reason.too_many_clients);
    }
    // The reference is the server's own: a client that goes on with the one it proposed is found out.
    if (++last_connection_ref_ == message.connection_ref()) {
        ++last_connection_ref_;
    }
    connection_reset(sender);
    if (known) {
        connection_ended(clients_[sender]);
    }
    clients_[sender] = client{sender, last_connection_ref_, message.connection_ref(), 0};
    if (!known) {
        out_.watch(sender);
    }
    return confirmed(message_writer().word(PROTOCOL_VERSION).take());
}

verdict service::list_capabilities() const
{
    message_writer list;
    list.word(static_cast<uint32_t>(protocol_.capabilities.size()));
    for (const uint32_t capability : protocol_.capabilities) {
        list.word(capability).zeros(protocol_.capability_size - 4);
    }
    return confirmed(list.take());
}

void service::answer(const request_kind &kind, mailbox sender, const message_view &message, const verdict &result)
{
    const auto found = clients_.find(sender);
    if (result.reject_reason) {
        if (kind.reject != 0) {
            ++counters_.rejected;
            emit(sender, message_with_head(kind.reject, message.procedure_ref(), message.connection_ref(),
                                           reject_fields(kind, message, *result.reject_reason)));
        }
        return;
    }
    if (kind.confirm != 0) {
        ++counters_.confirmed;
        send_to(found->second, kind.confirm, message.procedure_ref(), result.fields);
    }
    confirmed_to(kind, found->second, message);
}

bytes service::reject_fields(const request_kind & /*kind*/, const message_view & /*message*/, uint32_t reason) const
{
    return message_writer().word(reason).take();
}

// ---- Sending -------------------------------------------------------------------------------------------------------

void service::send_to(const client &to, uint32_t number, uint32_t procedure_ref, const bytes &fields)
{
    emit(to.address, message_with_head(number, procedure_ref, to.connection_ref, fields));
}

void service::emit(mailbox to, bytes message)
{
    if (due_) {
        waiting_.emplace(*due_, waiting{to, std::move(message)});
    } else {
        out_.send(to, std::move(message));
    }
}

void service::tick(millis now)
{
    while (!waiting_.empty() && waiting_.begin()->first <= now) {
        waiting next = std::move(waiting_.begin()->second);
        waiting_.erase(waiting_.begin());
        out_.send(next.to, std::move(next.message));
    }
    forget_what_is_due(now);
}

// Whoever connects again and again must not have all kept that he ever asked for, nor cost others what they have.
void service::connection_ended(const client &known)
{
    if (asked_for_nothing(known.connection_ref)) {
        (void)forget(known.connection_ref);
        return;
    }
    if (ended_.size() >= max_clients_) {
        const auto own = std::find_if(ended_.begin(), ended_.end(),
                                      [&](const ended_connection &ended) { return ended.address == known.address; });
        (void)forget_ended(own == ended_.end() ? ended_.begin() : own);
    }
    ended_.push_back({known.address, known.connection_ref, std::nullopt});
}

bool service::forget_ended(std::vector<ended_connection>::iterator ended)
{
    if (ended == ended_.end() || !forget(ended->connection_ref)) {
        return false;
    }
    ended_.erase(ended);
    return true;
}

bool service::forget_first_ended() { return forget_ended(ended_.begin()); }

void service::forget_what_is_due(millis now)
{
    for (ended_connection &ended : ended_) {
        ended.due = ended.due.value_or(now + KEPT_AFTER_THE_END_MS);
    }
    std::erase_if(ended_, [&](ended_connection &ended) {
        if (*ended.due > now) {
            return false;
        }
        ended.due = now + KEPT_AFTER_THE_END_MS;
        return forget(ended.connection_ref);
    });
}

std::optional<millis> service::next_deadline() const
{
    std::optional<millis> next = waiting_.empty() ? std::nullopt : std::optional(waiting_.begin()->first);
    for (const ended_connection &ended : ended_) {
        const millis due = ended.due.value_or(0);
        next = std::min(next.value_or(due), due);
    }
    return next;
}

void service::client_gone(mailbox address)
{
    const auto found = clients_.find(address);
    if (found == clients_.end()) {
        return;
    }
    connection_ended(found->second);
    clients_.erase(found);
    ++counters_.clients_lost;
    std::erase_if(waiting_, [&](const auto &entry) { return entry.second.to == address; });
    connection_reset(address);
}

// ---- Commands ------------------------------------------------------------------------------------------------------

json service::control(const arguments &words)
{
    const std::string name = words.empty() ? "" : words[0];
    if (name == "show") {
        expect_words(words, 1, 1, "show");
        return show();
    }
    if (name == "fault") {
        set_fault(words);
        return faults_.show();
    }
    if (name == "die") {
        expect_words(words, 1, 1, "die");
        dying_ = true;
        return nullptr;
    }
    if (auto result = own_command(words)) {
        return *result;
    }
    throw command_error("unknown command \"" + name + "\"; known: show, fault, die" + own_commands());
}

void service::set_fault(const arguments &words)
{
    const char *usage = "fault reject REQUEST N REASON | delay REQUEST N MS | silent REQUEST N | "
                        "unsolicited MESSAGE [HEX [MAILBOX]] | clear";
    expect_words(words, 2, 5, usage);
    const std::string &kind = words[1];
    if (kind == "clear") {
        expect_words(words, 2, 2, usage);
        faults_.clear();
    } else if (kind == "unsolicited") {
        expect_words(words, 3, 5, usage);
        send_unsolicited(words);
    } else if (kind == "reject" || kind == "delay" || kind == "silent") {
        const bool has_value = kind != "silent";
        expect_words(words, has_value ? 5 : 4, has_value ? 5 : 4, usage);
        fault entry{fault_kind::silent, request_number(words[2]), words[2],
                    parse_number(words[3], UINT32_MAX, "number of requests"), 0};
        if (kind == "reject") {
            entry.kind = fault_kind::reject;
            entry.value = reason_value(words[4]);
        } else if (kind == "delay") {
            entry.kind = fault_kind::delay;
            entry.value = parse_number(words[4], LONGEST_DELAY_MS, "delay in milliseconds");
        }
        faults_.add(std::move(entry));
    } else {
        throw command_error(std::string("usage: ") + usage);
    }
}

// Without bytes of its own the message has the size its kind has at least, its fields zero.
void service::send_unsolicited(const arguments &words)
{
    const auto found = std::find_if(protocol_.sent.begin(), protocol_.sent.end(),
                                    [&](const sent_kind &kind) { return words[2] == kind.name; });
    if (found == protocol_.sent.end()) {
        throw command_error("no message of this service: " + words[2]);
    }
    if (words.size() > 3 && !words[3].empty()) {
        const bytes message = message_writer().host_word(found->number).append(parse_hex(words[3])).take();
        if (words.size() > 4) {
            const auto to = out_.locate(words[4]);
            if (!to) {
                throw command_error("no mailbox of the name " + words[4]);
            }
            out_.send(*to, message);
            return;
        }
        for (const auto &[address, known] : clients_) {
            out_.send(address, message);
        }
        return;
    }
    for (const auto &[address, known] : clients_) {
        out_.send(address, message_with_head(found->number, 0, known.connection_ref, bytes(found->size - HEAD_SIZE)));
    }
}

uint32_t service::request_number(const std::string &name) const
{
    if (name == "any") {
        return ANY_REQUEST;
    }
    for (const request_kind &kind : protocol_.requests) {
        if (name == kind.name) {
            return kind.number;
        }
    }
    throw command_error("no request of this service: " + name);
}

uint32_t service::reason_value(const std::string &name) const
{
    for (const reason_name &reason : protocol_.reasons) {
        if (name == reason.name) {
            return reason.value;
        }
    }
    return parse_number(name, UINT32_MAX, "reason");
}

json service::show() const
{
    auto connected = json::array();
    for (const auto &[address, known] : clients_) {
        connected.push_back({{"mailbox", address},
                             {"connection_ref", known.connection_ref},
                             {"proposed_ref", known.proposed_ref},
                             {"requests", known.requests}});
    }
    json all = {{"service", protocol_.service},    {"mailbox", protocol_.mailbox_name},
                {"clients", std::move(connected)}, {"counters", show_counters()},
                {"faults", faults_.show()},        {"waiting_answers", waiting_.size()}};
    all.update(state());
    return all;
}

json service::show_counters() const
{
    json received = json::object();
    for (const request_kind &kind : protocol_.requests) {
        received[kind.name] = counters_.received.at(kind.number);
    }
    return {{"received", std::move(received)},
            {"confirmed", counters_.confirmed},
            {"rejected", counters_.rejected},
            {"kept_silent", counters_.kept_silent},
            {"too_short", counters_.too_short},
            {"unknown_number", counters_.unknown_number},
            {"unknown_connection", counters_.unknown_connection},
            {"clients_lost", counters_.clients_lost}};
}

uint32_t parse_number(const std::string &text, uint32_t max, const char *what)
{
    const bool hex = text.starts_with("0x");
    const char *first = text.data() + (hex ? 2 : 0);
    const char *last = text.data() + text.size();
    uint32_t value = 0;
    const auto [end, failure] = std::from_chars(first, last, value, hex ? 16 : 10);
    if (failure != std::errc{} || end != last || value > max) {
        throw command_error(std::string(what) + ": \"" + text + "\" is no number from 0 to " + std::to_string(max));
    }
    return value;
}

void expect_words(const arguments &words, size_t least, size_t most, const char *usage)
{
    if (words.size() < least || words.size() > most) {
        throw command_error(std::string("usage: ") + usage);
    }
}

} // namespace kap_node
