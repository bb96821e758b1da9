// Messages as the services of the reference node read and write them: the first word in host byte order, every later
// integer in network order, strings zero-terminated within a fixed bound.
//
// A view never reads past the end of its message: what lies beyond reads as zero or as nothing. Whether a message is
// long enough is decided once, by the service core, from the size its request needs.
#pragma once

#include <arpa/inet.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kap_node
{

using bytes = std::vector<uint8_t>;
using mac = std::array<uint8_t, 6>;

// Every request and every answer begins with number, procedure_ref and connection_ref.
inline constexpr size_t HEAD_SIZE = 12;

class message_view
{
public:
    explicit message_view(std::span<const uint8_t> data) : data_(data) {}

    size_t size() const { return data_.size(); }
    uint32_t number() const { return load<uint32_t>(0); }
    uint32_t procedure_ref() const { return word(4); }
    uint32_t connection_ref() const { return word(8); }

    uint32_t word(size_t offset) const { return ntohl(load<uint32_t>(offset)); }
    uint16_t half(size_t offset) const { return ntohs(load<uint16_t>(offset)); }
    mac mac_at(size_t offset) const { return load<mac>(offset); }

    // The `length` bytes at `offset`, or nothing when the message ends before.
    std::span<const uint8_t> part(size_t offset, size_t length) const
    {
        if (offset > data_.size() || length > data_.size() - offset) {
            return {};
        }
        return data_.subspan(offset, length);
    }

    // A string within `bound` bytes; nothing when it has no end there.
    std::optional<std::string> text(size_t offset, size_t bound) const
    {
        const auto field = part(offset, bound);
        const void *end = field.empty() ? nullptr : memchr(field.data(), 0, field.size());
        if (end == nullptr) {
            return std::nullopt;
        }
        return std::string(reinterpret_cast<const char *>(field.data()), static_cast<const char *>(end));
    }

    // Whether `count` entries of `size` bytes, the first at `offset`, lie within the message.
    bool holds(size_t offset, uint32_t count, size_t size) const
    {
        return offset <= data_.size() && uint64_t{count} * size <= data_.size() - offset;
    }

private:
    template <class T> T load(size_t offset) const
    {
        T value{};
        const auto field = part(offset, sizeof value);
        if (!field.empty()) {
            memcpy(&value, field.data(), sizeof value);
        }
        return value;
    }

    std::span<const uint8_t> data_;
};

// Builds a message, or the fields that follow its head, from front to back.
class message_writer
{
public:
    message_writer &host_word(uint32_t value) { return raw(&value, sizeof value); }

    message_writer &word(uint32_t value) { return host_word(htonl(value)); }

    message_writer &half(uint16_t value)
    {
        const uint16_t net = htons(value);
        return raw(&net, sizeof net);
    }

    message_writer &address(const mac &value) { return raw(value.data(), value.size()); }

    message_writer &zeros(size_t count)
    {
        data_.resize(data_.size() + count);
        return *this;
    }

    // A field of `bound` bytes, cut so that its last byte is zero.
    message_writer &text(const std::string &value, size_t bound)
    {
        const size_t start = data_.size();
        zeros(bound);
        memcpy(data_.data() + start, value.data(), std::min(value.size(), bound - 1));
        return *this;
    }

    // A string and its terminator, cut to `bound` bytes.
    message_writer &open_text(const std::string &value, size_t bound)
    {
        return text(value, std::min(value.size() + 1, bound));
    }

    message_writer &append(std::span<const uint8_t> part) { return raw(part.data(), part.size()); }

    bytes take() { return std::move(data_); }

private:
    message_writer &raw(const void *from, size_t count)
    {
        const auto *first = static_cast<const uint8_t *>(from);
        data_.insert(data_.end(), first, first + count);
        return *this;
    }

    bytes data_;
};

std::string mac_text(const mac &value);
std::string hex_text(std::span<const uint8_t> data);

} // namespace kap_node
