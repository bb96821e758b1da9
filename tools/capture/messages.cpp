#include "messages.hpp"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "itc.h"
#include "itc_internal.h"
#include "itc_wire.hpp"

namespace capture
{

namespace
{

using clock = std::chrono::steady_clock;

constexpr std::chrono::seconds PATIENCE{2};
constexpr std::chrono::milliseconds BETWEEN_TRIES{10};
constexpr size_t NAMES_KEPT = 65536; // of mailboxes that came and went

void put16(std::vector<uint8_t> &to, size_t value)
{
    to.push_back(static_cast<uint8_t>(value >> 8));
    to.push_back(static_cast<uint8_t>(value));
}

void put32(std::vector<uint8_t> &to, uint32_t value)
{
    put16(to, value >> 16);
    put16(to, value & 0xFFFF);
}

std::string refusal_text(int error, const std::string &process)
{
    switch (error) {
    case ENOENT:
        return process + " does not run";
    case EACCES:
        return "only root may look at messages";
    case ENOTCONN:
        return "the registry itcd is lost";
    default:
        return "the messages of " + process + " cannot be looked at: " + strerror(error);
    }
}

} // namespace

std::vector<uint8_t> message_packet(const told_message &m, const std::string &sender, const std::string &receiver,
                                    uint32_t snap_length)
{
    const size_t kept = std::min<size_t>(m.bytes.size(), snap_length);
    unsigned flags = kept < m.length ? MESSAGE_CUT : 0;
    flags |= std::endian::native == std::endian::little ? MESSAGE_LITTLE_ENDIAN : 0;
    std::vector<uint8_t> packet = {MESSAGE_HEAD_VERSION, static_cast<uint8_t>(m.way)};
    put16(packet, flags);
    put32(packet, m.sender);
    put32(packet, m.receiver);
    packet.push_back(static_cast<uint8_t>(sender.size()));
    packet.push_back(static_cast<uint8_t>(receiver.size()));
    put16(packet, MESSAGE_HEAD_SIZE + sender.size() + receiver.size());
    packet.insert(packet.end(), sender.begin(), sender.end());
    packet.insert(packet.end(), receiver.begin(), receiver.end());
    packet.insert(packet.end(), m.bytes.begin(), m.bytes.begin() + static_cast<std::ptrdiff_t>(kept));
    return packet;
}

uint32_t whole_length(const told_message &m, size_t packet_length, uint32_t snap_length)
{
    return static_cast<uint32_t>(packet_length - std::min<size_t>(m.bytes.size(), snap_length) + m.length);
}

std::optional<told_record> read_record(std::span<const uint8_t> packet)
{
    itc_wire::tap_record record{};
    if (packet.size() < sizeof record) {
        return std::nullopt;
    }
    memcpy(&record, packet.data(), sizeof record);
    const std::span<const uint8_t> bytes = packet.subspan(sizeof record);
    const bool received = record.what == itc_wire::tap_received;
    const bool is_end = record.what == itc_wire::tap_ends;
    if (record.version != itc_wire::tap_version || (!received && !is_end && record.what != itc_wire::tap_sent) ||
        bytes.size() > record.length || record.length > itc_wire::message_limit) {
        return std::nullopt;
    }
    return told_record{record.lost,
                       is_end,
                       {record.stamp,
                        received ? direction::inbound : direction::outbound,
                        received ? record.other : record.own,
                        received ? record.own : record.other,
                        record.length,
                        {bytes.begin(), bytes.end()}}};
}

message_source::message_source(const std::string &process) : buffer_(65536)
{
    const auto end = clock::now() + PATIENCE;
    int error = itc_internal_tap(process.c_str(), &fd_);
    while (error == EAGAIN && clock::now() < end) { // the process, or this one, has something to read first
        std::this_thread::sleep_for(BETWEEN_TRIES);
        error = itc_internal_tap(process.c_str(), &fd_);
    }
    if (error != 0) {
        throw tap_refused{error, refusal_text(error, process)};
    }
    try {
        await_begin(process);
    } catch (...) {
        close(fd_);
        throw;
    }
}

message_source::~message_source() { close(fd_); }

// The registry has told the process, and the process takes it in.
void message_source::await_begin(const std::string &process)
{
    pollfd wanted = {fd_, POLLIN, 0};
    itc_wire::tap_record record{};
    if (poll(&wanted, 1, static_cast<int>(std::chrono::milliseconds(PATIENCE).count())) != 1) {
        throw tap_refused{ETIMEDOUT, process + " does not answer"};
    }
    if (recv(fd_, &record, sizeof record, 0) != sizeof record) {
        throw tap_refused{ENOENT, process + " has ended, or has no descriptor left"};
    }
    if (record.version != itc_wire::tap_version) {
        throw tap_refused{EPROTO, process + " tells its messages in a form that is not known here"};
    }
}

std::optional<told_message> message_source::next()
{
    if (ended_) {
        return std::nullopt;
    }
    const ssize_t got = recv(fd_, buffer_.data(), buffer_.size(), MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return std::nullopt;
    }
    auto told = read_record({buffer_.data(), static_cast<size_t>(std::max<ssize_t>(got, 0))});
    if (!told || told->is_end) { // nothing comes behind it
        ended_ = true;
        replaced_ = told && !stopped_;
        lost_ = told ? told->lost : lost_;
        return std::nullopt;
    }
    lost_ = told->lost;
    return std::move(told->message);
}

const std::string &message_source::name_of(uint32_t mailbox)
{
    if (names_.size() >= NAMES_KEPT) {
        names_.clear();
    }
    const auto [entry, is_new] = names_.try_emplace(mailbox);
    char name[256] = {};
    if (is_new && mailbox != ITC_NO_MBOX && itc_internal_name_of(mailbox, name) == 0) {
        entry->second = name;
    }
    return entry->second;
}

void message_source::stop()
{
    stopped_ = true;
    (void)shutdown(fd_, SHUT_WR);
}

} // namespace capture
