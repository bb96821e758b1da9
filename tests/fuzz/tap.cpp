// What a process tells of its messages, packet by packet, and the capture that is made of it: whatever is told, what is
// written is a file that can be read.
#include <algorithm>
#include <cstring>

#include <sys/mman.h>
#include <unistd.h>

#include "input.hpp"
#include "itc_wire.hpp"
#include "messages.hpp"
#include "pcapng.hpp"

namespace
{

using namespace capture;
using fuzz::Input;
using fuzz::require;

constexpr uint32_t PACKET = 6;
constexpr size_t PACKET_HEAD = 28;
constexpr size_t MOST_PACKETS = 64;

uint32_t number_at(const std::vector<uint8_t> &bytes, size_t at)
{
    uint32_t value = 0;
    require(at + sizeof value <= bytes.size(), "a block lies in the file");
    memcpy(&value, bytes.data() + at, sizeof value);
    return value;
}

// Every block is whole, and no packet holds more than it had.
size_t count_packets(const std::vector<uint8_t> &file)
{
    size_t packets = 0;
    for (size_t at = 0; at < file.size();) {
        const uint32_t length = number_at(file, at + 4);
        require(length >= 12 && length % 4 == 0 && at + length <= file.size(), "a block's length");
        require(number_at(file, at + length - 4) == length, "it stands behind the block as well");
        if (number_at(file, at) == PACKET) {
            const uint32_t kept = number_at(file, at + 20);
            require(kept <= number_at(file, at + 24), "no more is kept of a packet than there was");
            require(PACKET_HEAD + kept <= length, "what is kept lies in the block");
            packets++;
        }
        at += length;
    }
    return packets;
}

// The bytes that a process sends as one packet: a record that makes sense but for what the input says, or anything.
std::vector<uint8_t> packet_of(Input &input)
{
    const uint8_t shape = input.byte();
    if ((shape & 3) == 3) {
        return input.bytes(input.byte());
    }
    itc_wire::tap_record record{};
    record.version = (shape & 4) != 0 ? input.word() : itc_wire::tap_version;
    record.what = input.byte() % 6;
    record.own = input.word();
    record.other = input.word();
    record.stamp = uint64_t{input.word()} << 32 | input.word();
    record.lost = input.word();
    const std::vector<uint8_t> bytes = input.bytes(input.half());
    record.length = (shape & 8) != 0 ? input.word() : static_cast<uint32_t>(bytes.size() + (shape >> 4));
    std::vector<uint8_t> packet(sizeof record);
    memcpy(packet.data(), &record, sizeof record);
    packet.insert(packet.end(), bytes.begin(), bytes.end());
    return packet;
}

void check_packet(const std::vector<uint8_t> &packet, const told_message &m, uint32_t snap_length)
{
    require(packet.size() >= MESSAGE_HEAD_SIZE && packet[0] == MESSAGE_HEAD_VERSION, "a head");
    const size_t begins = static_cast<size_t>(packet[14]) << 8 | packet[15];
    require(begins == MESSAGE_HEAD_SIZE + packet[12] + packet[13] && begins <= packet.size(), "where the message is");
    const size_t kept = packet.size() - begins;
    require(kept <= snap_length && kept <= m.length, "so much is kept of the message");
    require(((packet[3] & MESSAGE_CUT) != 0) == (kept < m.length), "that it was cut is said when it was");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Input input(data, size);
    const uint32_t snap_length = input.byte();
    const std::string sender = input.text(input.byte());
    static const int memory = memfd_create("capture", MFD_CLOEXEC);
    require(memory >= 0 && ftruncate(memory, 0) == 0 && lseek(memory, 0, SEEK_SET) == 0, "a file");
    size_t told = 0;
    {
        pcapng_writer file(dup(memory), "fuzz");
        const uint32_t where = file.add_place({"process", "its messages", LINK_USER0, snap_length, ""});
        for (size_t i = 0; i < MOST_PACKETS && input.more(); i++) {
            const auto record = read_record(packet_of(input));
            if (!record || record->is_end) {
                continue;
            }
            const told_message &m = record->message;
            require(m.bytes.size() <= m.length, "no more is told of a message than there was");
            const std::vector<uint8_t> packet = message_packet(m, sender, "", snap_length);
            check_packet(packet, m, snap_length);
            file.packet(where, m.stamp, packet, whole_length(m, packet.size(), snap_length), m.way);
            told++;
        }
        require(file.flush(), "it is written");
    }
    std::vector<uint8_t> written(static_cast<size_t>(lseek(memory, 0, SEEK_END)));
    require(pread(memory, written.data(), written.size(), 0) == static_cast<ssize_t>(written.size()), "it is read");
    require(count_packets(written) == told, "each is in the file once");
    return 0;
}
