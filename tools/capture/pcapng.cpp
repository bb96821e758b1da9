#include "pcapng.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace capture
{

namespace
{

constexpr uint32_t SECTION = 0x0A0D0D0A;
constexpr uint32_t INTERFACE = 1;
constexpr uint32_t STATISTICS = 5;
constexpr uint32_t PACKET = 6;

constexpr uint32_t ORDER_MARK = 0x1A2B3C4D;
constexpr uint16_t MAJOR = 1;
constexpr uint16_t MINOR = 0;
constexpr uint64_t LENGTH_UNKNOWN = UINT64_MAX;

constexpr uint16_t END_OF_OPTIONS = 0;
constexpr uint16_t SECTION_PROGRAM = 4;
constexpr uint16_t INTERFACE_NAME = 2;
constexpr uint16_t INTERFACE_DESCRIPTION = 3;
constexpr uint16_t INTERFACE_RESOLUTION = 9;
constexpr uint16_t INTERFACE_FILTER = 11;
constexpr uint16_t PACKET_FLAGS = 2;
constexpr uint16_t STATISTICS_RECEIVED = 4;
constexpr uint16_t STATISTICS_DROPPED = 5;

constexpr uint8_t NANOSECONDS = 9; // 10^-9
constexpr uint8_t FILTER_IS_TEXT = 0;
constexpr size_t LONGEST_OPTION = UINT16_MAX;
constexpr int LAST_ROOM_MS = 1000;

} // namespace

// One block of the file: its length stands before and behind it.
class pcapng_writer::block
{
public:
    block(pcapng_writer &to, uint32_t type) : to_(to), start_(to.out_.size())
    {
        to_.number(type);
        to_.number(0);
    }
    ~block()
    {
        const auto length = static_cast<uint32_t>(to_.out_.size() - start_ + sizeof(uint32_t));
        const auto *bytes = reinterpret_cast<const uint8_t *>(&length);
        std::copy_n(bytes, sizeof length, to_.out_.data() + start_ + sizeof(uint32_t));
        to_.number(length);
    }
    block(const block &) = delete;
    block &operator=(const block &) = delete;

private:
    pcapng_writer &to_;
    size_t start_;
};

pcapng_writer::pcapng_writer(int fd, const std::string &program) : fd_(fd)
{
    struct stat facts {
    };
    at_once_ = fstat(fd, &facts) == 0 && S_ISREG(facts.st_mode);
    const block b(*this, SECTION);
    number(ORDER_MARK);
    const uint16_t version[] = {MAJOR, MINOR};
    padded(version, sizeof version);
    padded(&LENGTH_UNKNOWN, sizeof LENGTH_UNKNOWN);
    text_option(SECTION_PROGRAM, program);
    option(END_OF_OPTIONS, nullptr, 0);
}

pcapng_writer::~pcapng_writer() { close(fd_); }

uint32_t pcapng_writer::add_place(const place &p)
{
    const block b(*this, INTERFACE);
    const uint16_t link_type[] = {p.link_type, 0};
    padded(link_type, sizeof link_type);
    number(p.snap_length);
    text_option(INTERFACE_NAME, p.name);
    text_option(INTERFACE_DESCRIPTION, p.description);
    option(INTERFACE_RESOLUTION, &NANOSECONDS, sizeof NANOSECONDS);
    if (!p.filter.empty()) {
        std::vector<uint8_t> filter = {FILTER_IS_TEXT};
        filter.insert(filter.end(), p.filter.begin(), p.filter.end());
        option(INTERFACE_FILTER, filter.data(), filter.size());
    }
    option(END_OF_OPTIONS, nullptr, 0);
    return places_++;
}

void pcapng_writer::packet(uint32_t where, uint64_t stamp_ns, std::span<const uint8_t> bytes, uint32_t length,
                           direction way)
{
    const block b(*this, PACKET);
    number(where);
    stamp(stamp_ns);
    number(static_cast<uint32_t>(bytes.size()));
    number(length);
    padded(bytes.data(), bytes.size());
    if (way != direction::unknown) {
        option(PACKET_FLAGS, &way, sizeof way);
        option(END_OF_OPTIONS, nullptr, 0);
    }
}

void pcapng_writer::counts(uint32_t where, uint64_t stamp_ns, const place_counts &c)
{
    const block b(*this, STATISTICS);
    number(where);
    stamp(stamp_ns);
    option(STATISTICS_RECEIVED, &c.received, sizeof c.received);
    option(STATISTICS_DROPPED, &c.dropped, sizeof c.dropped);
    option(END_OF_OPTIONS, nullptr, 0);
}

// 0 when something can be written, else an errno value.
int pcapng_writer::await_room() const
{
    if (at_once_) {
        return 0;
    }
    pollfd wanted[] = {{fd_, POLLOUT, 0}, {signals_, POLLIN, 0}};
    while (poll(wanted, 2, -1) < 0) {
        if (errno != EINTR) {
            return errno;
        }
    }
    if (wanted[0].revents != 0) {
        return 0; // there is room, or the writing says what is the matter
    }
    return poll(wanted, 1, LAST_ROOM_MS) > 0 ? 0 : ECANCELED;
}

bool pcapng_writer::flush()
{
    size_t at = 0;
    while (error_ == 0 && at < out_.size()) {
        error_ = await_room();
        const size_t most = at_once_ ? out_.size() : PIPE_BUF; // what a pipe with room takes without waiting
        const ssize_t put = error_ != 0 ? 0 : write(fd_, out_.data() + at, std::min(most, out_.size() - at));
        if (put > 0) {
            at += static_cast<size_t>(put);
        } else if (put < 0 && errno != EINTR && errno != EAGAIN) {
            error_ = errno;
        }
    }
    out_.clear();
    errno = error_;
    return error_ == 0;
}

void pcapng_writer::number(uint32_t value) { padded(&value, sizeof value); }

// The upper half comes first, whatever the byte order of each.
void pcapng_writer::stamp(uint64_t value)
{
    number(static_cast<uint32_t>(value >> 32));
    number(static_cast<uint32_t>(value));
}

void pcapng_writer::padded(const void *bytes, size_t size)
{
    const auto *first = static_cast<const uint8_t *>(bytes);
    out_.insert(out_.end(), first, first + size);
    out_.resize((out_.size() + 3) / 4 * 4);
}

void pcapng_writer::option(uint16_t code, const void *bytes, size_t size)
{
    const uint16_t head[] = {code, static_cast<uint16_t>(size)};
    padded(head, sizeof head);
    padded(bytes, size);
}

void pcapng_writer::text_option(uint16_t code, const std::string &text)
{
    option(code, text.data(), std::min(text.size(), LONGEST_OPTION));
}

} // namespace capture
