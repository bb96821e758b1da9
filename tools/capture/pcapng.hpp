// Writes a capture as a pcapng file: one section, an interface block for each place that was looked at, a block for
// each packet with its direction, and at the end how much each place saw and lost. Byte order is that of this machine.
//
// What was written is handed on by flush; a file that takes no more is told of once, and nothing is written after that.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace capture
{

enum class direction : uint32_t {
    unknown = 0,
    inbound = 1,
    outbound = 2
};

// Link types of pcapng.
inline constexpr uint16_t LINK_ETHERNET = 1;
inline constexpr uint16_t LINK_USER0 = 147;

struct place {
    std::string name;
    std::string description;
    uint16_t link_type = LINK_ETHERNET;
    uint32_t snap_length = 0; // 0: without a bound
    std::string filter;       // as people read it; empty: none
};

struct place_counts {
    uint64_t received = 0;
    uint64_t dropped = 0;
};

class pcapng_writer
{
public:
    // Takes the descriptor over, and begins the section.
    pcapng_writer(int fd, const std::string &program);
    ~pcapng_writer();
    pcapng_writer(const pcapng_writer &) = delete;
    pcapng_writer &operator=(const pcapng_writer &) = delete;

    // A pipe that nobody reads holds nobody up for more than a second from when this descriptor can be read.
    void ends_with(int signals) { signals_ = signals; }
    uint32_t add_place(const place &p); // its number in the file
    // `bytes` of a packet that was `length` long; the stamp in nanoseconds since 1970.
    void packet(uint32_t where, uint64_t stamp, std::span<const uint8_t> bytes, uint32_t length, direction way);
    void counts(uint32_t where, uint64_t stamp, const place_counts &c);
    bool flush(); // false, with errno, when the file takes no more; ECANCELED: it was to end, and nobody reads
    size_t waiting() const { return out_.size(); }

private:
    class block;
    void number(uint32_t value);
    void stamp(uint64_t value);
    void padded(const void *bytes, size_t size);
    void option(uint16_t code, const void *bytes, size_t size);
    void text_option(uint16_t code, const std::string &text);

    int await_room() const;

    int fd_;
    bool at_once_ = false; // a file takes all that it is given
    int signals_ = -1;
    int error_ = 0;
    uint32_t places_ = 0;
    std::vector<uint8_t> out_;
};

} // namespace capture
