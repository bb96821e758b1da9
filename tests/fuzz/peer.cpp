// libitc between a registry and up to four peers that all send what the input says: bytes, or frames that make sense
// but for their numbers. Whatever comes, a message that is received has its whole first word, and its sender is a
// mailbox of a process that was introduced, or none; and what leaves for a peer is one whole frame after the other. At
// the end nobody is charged for anything.
#include <algorithm>
#include <array>
#include <fcntl.h>
#include <set>
#include <sys/socket.h>
#include <unistd.h>

#include "input.hpp"
#include "itc/state.hpp"

namespace
{

using fuzz::Input;
using fuzz::require;
using itc_wire::channel_frame;

constexpr uint32_t OWN_PROCESS = 7;
constexpr size_t PEERS = 4;
constexpr uint32_t PEER_PROCESSES[PEERS] = {8, 9, 10, 0xEFFFF};

struct other_end {
    int fd = -1;
    uint32_t channels = 0;
    std::vector<uint8_t> unread;
};

void make_pair(int (&ends)[2])
{
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0, "a pair of sockets");
}

class Story
{
public:
    explicit Story(Input input) : input_(input)
    {
        int ends[2];
        make_pair(ends);
        registry_ = ends[1];
        itc::state &s = itc::g();
        require(itc::poll_open() == 0, "something to wait with");
        require(itc::poll_add(itc::source_registry, 0, ends[0], 1 /* EPOLLIN */) == 0, "a registry to wait for");
        s.registry = ends[0];
        s.registry_lost = false;
        s.process = OWN_PROCESS;
        s.box_allowance = 4;
        s.up = true;
        s.generation++;
        s.next_serial = 0;
        s.next_box = 0;
        itc_wire::writer result(itc_wire::result, 1); // of the request that comes
        registry_says(result.u32(0));
        box_ = itc_create_mailbox("fuzzed", 0);
        require(box_ == itc_wire::mbox_of(OWN_PROCESS, 0), "a mailbox");
        s.subscriptions[5] = box_;
    }
    Story(const Story &) = delete;
    Story &operator=(const Story &) = delete;
    ~Story()
    {
        for (other_end &end : ends_) {
            leave(end);
        }
        if (registry_ >= 0) {
            close(registry_);
        }
        itc_exit();
        const itc::state &s = itc::g();
        require(s.queued_memory == 0 && s.accounts.empty(), "nothing is on anybody's account");
        require(s.half_memory == 0 && s.half_slot == nullptr && s.half_timer < 0, "no room is taken");
        require(s.paused_queue == 0 && s.paused_room == 0 && s.round.empty() && s.late.empty(), "nobody waits");
        require(s.outboxes_memory == 0, "nothing waits to be sent");
    }

    void play()
    {
        while (input_.more()) {
            step();
        }
        receive_all();
    }

private:
    void step()
    {
        const uint8_t what = input_.byte();
        const size_t which = what % PEERS;
        other_end &end = ends_[which];
        switch (what / PEERS % 12) {
        case 0:
            return introduce(which);
        case 1:
            return leave(end);
        case 2:
            return read_all(end);
        case 3:
            return put(end.fd, input_.bytes(input_.byte()));
        case 4:
            return send_to(which);
        case 5:
            return receive_all();
        case 6:
            raw_registry_ = true;
            return put(registry_, input_.bytes(input_.byte()));
        case 7:
            return say();
        case 8:
            return ask(which);
        case 9:
            return flood(end);
        case 10:
            return wait_for_nothing();
        default:
            return frame(end);
        }
    }

    // What lies in the sockets is read as far as it may be, and nothing of it taken.
    static void wait_for_nothing()
    {
        const uint32_t none[] = {0};
        require(itc_receive(none, 0, ITC_FROM_ANY) == nullptr, "no number passes");
    }

    static void put(int fd, const std::vector<uint8_t> &bytes)
    {
        if (fd >= 0) {
            (void)!::send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        }
    }

    void registry_says(itc_wire::writer &frame, int fd = -1) const
    {
        const std::string_view bytes = frame.frame();
        iovec part{const_cast<char *>(bytes.data()), bytes.size()};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        if (fd >= 0) {
            message.msg_control = control;
            message.msg_controllen = sizeof control;
            cmsghdr *rights = CMSG_FIRSTHDR(&message);
            rights->cmsg_level = SOL_SOCKET;
            rights->cmsg_type = SCM_RIGHTS;
            rights->cmsg_len = CMSG_LEN(sizeof(int));
            memcpy(CMSG_DATA(rights), &fd, sizeof fd);
        }
        if (registry_ >= 0) {
            (void)!sendmsg(registry_, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        }
    }

    // The registry introduces a process, which may have had a channel before.
    void introduce(size_t which)
    {
        int ends[2];
        make_pair(ends);
        leave(ends_[which]);
        ends_[which].fd = ends[1];
        itc_wire::writer frame(itc_wire::channel, 0);
        registry_says(frame.u32(PEER_PROCESSES[which]).u32(++ends_[which].channels), ends[0]);
        close(ends[0]);
    }

    static void leave(other_end &end)
    {
        if (end.fd >= 0) {
            close(end.fd);
        }
        end.fd = -1;
        end.unread.clear();
    }

    // A frame of which more was promised than comes, too.
    void frame(const other_end &end)
    {
        const uint8_t how = input_.byte();
        channel_frame head{};
        const size_t size = (how & 1) != 0 ? input_.half() * 3u : 4u + input_.byte();
        const size_t times = (how & 0x41) == 0x41 ? 64 : 1; // so large that it needs room, which only a flood fills
        head.length = static_cast<uint32_t>(size * times);
        head.to_box = (how & 2) != 0 ? input_.half() : 0;
        head.from_box = (how & 4) != 0 ? input_.half() : how >> 4;
        std::vector<uint8_t> bytes(sizeof head + ((how & 8) != 0 ? size / 2 : size));
        memcpy(bytes.data(), &head, sizeof head);
        const std::vector<uint8_t> front = input_.bytes(8);
        std::copy_n(front.begin(), std::min(front.size(), bytes.size() - sizeof head), bytes.begin() + sizeof head);
        put(end.fd, bytes);
    }

    // Zeroes, up to a megabyte: the rest of a long message, or nonsense.
    void flood(const other_end &end) { put(end.fd, std::vector<uint8_t>(static_cast<size_t>(input_.byte()) * 4096)); }

    void send_to(size_t which)
    {
        const size_t size = 4 + input_.byte() * ((which & 1) != 0 ? 257u : 1u);
        itc_msg *message = itc_alloc(size, 0x1234);
        itc_send(&message, itc_wire::mbox_of(PEER_PROCESSES[which], input_.byte() % 4), ITC_MY_MBOX);
    }

    void say()
    {
        static constexpr itc_wire::frame_type KINDS[] = {itc_wire::result,     itc_wire::located, itc_wire::found,
                                                         itc_wire::died,       itc_wire::channel, itc_wire::no_process,
                                                         itc_wire::subscribed, itc_wire::added,   itc_wire::removed};
        const itc_wire::frame_type type = KINDS[input_.pick(std::size(KINDS))];
        itc_wire::writer frame(type, input_.byte() % 16);
        const uint32_t mbox = itc_wire::mbox_of(PEER_PROCESSES[input_.pick(PEERS)], 0);
        switch (type) {
        case itc_wire::channel: // without a descriptor
            frame.u32(PEER_PROCESSES[input_.pick(PEERS)]).u32(input_.byte());
            break;
        case itc_wire::no_process:
            frame.u32(PEER_PROCESSES[input_.pick(PEERS)]);
            break;
        case itc_wire::subscribed:
            frame.u32(input_.byte() % 8);
            break;
        case itc_wire::added:
        case itc_wire::removed:
            frame.u32(input_.byte() % 8).u32(mbox).text(input_.text(input_.pick(16)).c_str());
            break;
        default:
            frame.u32(mbox);
            break;
        }
        registry_says(frame);
    }

    void ask(size_t which)
    {
        itc_msg *message = itc_alloc(12, 0x77);
        const uint32_t mbox = itc_wire::mbox_of(PEER_PROCESSES[which], input_.byte() % 4);
        switch (input_.pick(3)) {
        case 0:
            itc_locate_async("somebody", &message, box_);
            break;
        case 1:
            monitors_.push_back(itc_monitor(mbox, &message));
            break;
        default:
            itc_free(&message);
            if (!monitors_.empty()) {
                itc_unmonitor(monitors_.back());
                monitors_.pop_back();
            }
            break;
        }
    }

    void receive_all() const
    {
        for (;;) {
            itc_msg *message = itc_receive(nullptr, 0, ITC_FROM_ANY);
            if (message == nullptr) {
                return;
            }
            require(itc_size(message) >= sizeof(itc_msg), "a message has its whole first word");
            const uint32_t process = itc_wire::process_of(itc_sender(message));
            require(itc_sender(message) == ITC_NO_MBOX || process == OWN_PROCESS || is_peer(process),
                    "nobody poses as a process that was not introduced");
            itc_free(&message);
        }
    }

    bool is_peer(uint32_t process) const
    {
        // What the registry says of a name or a mailbox is taken as it is; it speaks of these only, or in raw bytes.
        return raw_registry_ ||
               std::find(std::begin(PEER_PROCESSES), std::end(PEER_PROCESSES), process) != std::end(PEER_PROCESSES);
    }

    static void read_all(other_end &end)
    {
        uint8_t buffer[65536];
        ssize_t got = 0;
        while (end.fd >= 0 && (got = recv(end.fd, buffer, sizeof buffer, MSG_DONTWAIT)) > 0) {
            end.unread.insert(end.unread.end(), buffer, buffer + got);
        }
        size_t at = 0;
        while (end.unread.size() - at >= sizeof(channel_frame)) {
            channel_frame head;
            memcpy(&head, end.unread.data() + at, sizeof head);
            require(head.length >= 4 && head.length <= 4 + 255 * 257 && head.from_box == 0,
                    "what leaves is one whole frame after the other");
            if (head.length + sizeof head > end.unread.size() - at) {
                break;
            }
            at += sizeof head + head.length;
        }
        end.unread.erase(end.unread.begin(), end.unread.begin() + static_cast<std::ptrdiff_t>(at));
    }

    Input input_;
    int registry_ = -1;
    uint32_t box_ = ITC_NO_MBOX;
    std::array<other_end, PEERS> ends_;
    std::vector<uint32_t> monitors_;
    bool raw_registry_ = false; // it has said who knows what
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Story(Input(data, size)).play();
    return 0;
}
