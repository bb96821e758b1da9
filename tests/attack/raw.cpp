// A process of ITC without libitc. See raw.hpp.
#include "raw.hpp"

#include <cerrno>
#include <cstring>
#include <utility>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

constexpr int ANSWER_MS = 3000;

bool wait_for(int fd, short events, int timeout_ms)
{
    pollfd wanted = {fd, events, 0};
    return poll(&wanted, 1, timeout_ms) > 0;
}

// Bytes of a stream, as many as are taken within the time.
size_t put(int fd, const char *bytes, size_t size, int timeout_ms)
{
    size_t done = 0;
    while (done < size) {
        const ssize_t out = send(fd, bytes + done, size - done, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (out > 0) {
            done += static_cast<size_t>(out);
        } else if (errno != EAGAIN || !wait_for(fd, POLLOUT, timeout_ms)) {
            break;
        }
    }
    return done;
}

// One read, descriptors apart. False: the connection has ended.
bool take_in(raw_link &link)
{
    char bytes[65536];
    alignas(cmsghdr) char control[CMSG_SPACE(64 * sizeof(int))];
    iovec part{bytes, sizeof bytes};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t got = recvmsg(link.fd, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (got <= 0) {
        return got < 0 && (errno == EAGAIN || errno == EINTR);
    }
    for (cmsghdr *c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
        const size_t count = c->cmsg_type == SCM_RIGHTS ? (c->cmsg_len - CMSG_LEN(0)) / sizeof(int) : 0;
        for (size_t i = 0; i < count; i++) {
            int fd = -1;
            memcpy(&fd, CMSG_DATA(c) + i * sizeof fd, sizeof fd);
            link.descriptors.push_back(fd);
        }
    }
    link.input.insert(link.input.end(), bytes, bytes + got);
    return true;
}

std::optional<raw_frame> cut_frame(raw_link &link)
{
    itc_wire::registry_frame head;
    if (link.input.size() < sizeof head) {
        return std::nullopt;
    }
    memcpy(&head, link.input.data(), sizeof head);
    if (head.length < sizeof head || link.input.size() < head.length) {
        return std::nullopt;
    }
    const auto begin = link.input.begin();
    raw_frame frame{head.type, head.serial, {begin + sizeof head, begin + head.length}, -1};
    link.input.erase(begin, begin + head.length);
    if (head.type == itc_wire::channel && !link.descriptors.empty()) {
        frame.fd = link.descriptors.front();
        link.descriptors.pop_front();
    }
    return frame;
}

} // namespace

uint32_t raw_frame::word(size_t index) const
{
    uint32_t value = 0;
    if (fields.size() >= (index + 1) * sizeof value) {
        memcpy(&value, fields.data() + index * sizeof value, sizeof value);
    }
    return value;
}

raw_link::raw_link(raw_link &&other) noexcept { *this = std::move(other); }

raw_link &raw_link::operator=(raw_link &&other) noexcept
{
    std::swap(fd, other.fd);
    std::swap(process, other.process);
    std::swap(input, other.input);
    std::swap(descriptors, other.descriptors);
    return *this;
}

raw_link::~raw_link() { raw_close(*this); }

bool raw_connect(raw_link &link)
{
    raw_close(link);
    link.fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, itc_wire::socket_path, sizeof itc_wire::socket_path);
    // No more than this is waited for a place in the line of those who want to connect.
    const timeval patience{1, 0};
    if (link.fd < 0 || setsockopt(link.fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience) != 0 ||
        connect(link.fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        raw_close(link);
        return false;
    }
    return true;
}

void raw_close(raw_link &link)
{
    if (link.fd >= 0) {
        close(link.fd);
    }
    for (const int fd : link.descriptors) {
        close(fd);
    }
    link.fd = -1;
    link.process = 0;
    link.input.clear();
    link.descriptors.clear();
}

bool raw_send(raw_link &link, itc_wire::writer &frame) { return raw_send_bytes(link, std::string(frame.frame())); }

bool raw_send_bytes(raw_link &link, const std::string &bytes)
{
    return link.fd >= 0 && put(link.fd, bytes.data(), bytes.size(), 1000) == bytes.size();
}

std::optional<raw_frame> raw_next(raw_link &link, int timeout_ms)
{
    while (link.fd >= 0) {
        if (auto frame = cut_frame(link)) {
            return frame;
        }
        if (!wait_for(link.fd, POLLIN, timeout_ms)) {
            return std::nullopt;
        }
        if (!take_in(link)) {
            raw_close(link);
        }
    }
    return std::nullopt;
}

bool raw_discard(raw_link &link)
{
    while (auto frame = raw_next(link, 0)) {
        if (frame->fd >= 0) {
            close(frame->fd);
        }
    }
    return link.fd >= 0;
}

bool raw_hello(raw_link &link)
{
    itc_wire::writer frame(itc_wire::hello, 1);
    if (!raw_connect(link) || !raw_send(link, frame.u32(itc_wire::version))) {
        return false;
    }
    const auto answer = raw_next(link, ANSWER_MS);
    if (!answer || answer->type != itc_wire::welcome) {
        raw_close(link);
        return false;
    }
    link.process = answer->word(0);
    return true;
}

int raw_create_box(raw_link &link, uint32_t box, const std::string &name)
{
    itc_wire::writer frame(itc_wire::create_box, 2);
    if (!raw_send(link, frame.u32(itc_wire::mbox_of(link.process, box)).text(name))) {
        return ENOTCONN;
    }
    while (auto answer = raw_next(link, ANSWER_MS)) {
        if (answer->type == itc_wire::result && answer->serial == 2) {
            return static_cast<int>(answer->word(0));
        }
    }
    return ENOTCONN;
}

raw_channel::raw_channel(raw_channel &&other) noexcept { *this = std::move(other); }

raw_channel &raw_channel::operator=(raw_channel &&other) noexcept
{
    std::swap(fd, other.fd);
    std::swap(mbox, other.mbox);
    return *this;
}

raw_channel::~raw_channel()
{
    if (fd >= 0) {
        close(fd);
    }
}

bool raw_meet(raw_link &link, const std::string &name, raw_channel &channel)
{
    itc_wire::writer frame(itc_wire::locate, 3);
    if (!raw_send(link, frame.text(name))) {
        return false;
    }
    bool located = false;
    while (!located || channel.fd < 0) {
        const auto answer = raw_next(link, ANSWER_MS);
        if (!answer) {
            return false;
        }
        if (answer->type == itc_wire::channel) {
            if (channel.fd >= 0) {
                close(channel.fd);
            }
            channel.fd = answer->fd;
        }
        if (answer->type == itc_wire::located && answer->serial == 3) {
            located = true;
            channel.mbox = answer->word(0);
            if (channel.mbox == 0xFFFFFFFF) {
                return false;
            }
        }
    }
    return true;
}

size_t raw_bytes(raw_channel &channel, const void *bytes, size_t size, int timeout_ms)
{
    return channel.fd < 0 ? 0 : put(channel.fd, static_cast<const char *>(bytes), size, timeout_ms);
}

bool raw_message(raw_channel &channel, uint16_t from_box, const void *bytes, size_t size, int timeout_ms)
{
    const itc_wire::channel_frame head{static_cast<uint32_t>(size),
                                       static_cast<uint16_t>(itc_wire::box_of(channel.mbox)), from_box};
    std::string whole(reinterpret_cast<const char *>(&head), sizeof head);
    whole.append(static_cast<const char *>(bytes), size);
    return raw_bytes(channel, whole.data(), whole.size(), timeout_ms) == whole.size();
}

bool raw_read_away(raw_channel &channel)
{
    char bytes[65536];
    ssize_t got = 0;
    while (channel.fd >= 0 && (got = recv(channel.fd, bytes, sizeof bytes, MSG_DONTWAIT)) > 0) {
    }
    return got < 0 && errno == EAGAIN;
}
