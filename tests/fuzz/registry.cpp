// The registry with its real server: up to four processes connect to its socket and send what the input says, byte by
// byte or as frames that make sense, read their answers or not, and go. Every frame that the registry sends must make
// sense, and when all have gone, nothing of them may be left.
#include <array>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "input.hpp"
#include "itcd/registry.hpp"
#include "itcd/server.hpp"

namespace
{

using fuzz::Input;
using fuzz::require;

struct process {
    int fd = -1;
    uint32_t number = 0;  // as the registry said
    uint32_t channel = 0; // the last one it was given
    uint32_t channel_to = 0;
    std::vector<uint8_t> unread; // a frame that is not whole yet
};

constexpr size_t PROCESSES = 4;

// A listening socket under a name that the kernel chooses, and where it is.
struct doorstep {
    int fd = -1;
    sockaddr_un address{};
    socklen_t length = sizeof(sockaddr_un);

    doorstep()
    {
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_un any{};
        any.sun_family = AF_UNIX;
        require(bind(fd, reinterpret_cast<const sockaddr *>(&any), sizeof any.sun_family) == 0,
                "a socket to listen on");
        require(listen(fd, 16) == 0 && getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) == 0,
                "a name for it");
    }
};

class Story
{
public:
    Story(const doorstep &door, Input input) : door_(door), input_(input) {}

    void play()
    {
        while (input_.more()) {
            step();
            server_turn(0);
        }
        for (process &p : processes_) {
            leave(p);
        }
        for (int i = 0; i < 256 && !registry_is_empty(); ++i) {
            server_turn(0);
        }
        require(registry_is_empty(), "nothing is left of processes that have gone");
    }

private:
    void step()
    {
        const uint8_t what = input_.byte();
        process &p = processes_[what % PROCESSES];
        switch (what / PROCESSES % 8) {
        case 0:
            return enter(p, true);
        case 1:
            return enter(p, false);
        case 2:
            return leave(p);
        case 3:
            return read_answers(p);
        case 4:
            return send_bytes(p, input_.bytes(input_.byte()));
        default:
            return send_frame(p);
        }
    }

    void enter(process &p, bool politely)
    {
        if (p.fd >= 0) {
            return;
        }
        p.fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        require(connect(p.fd, reinterpret_cast<const sockaddr *>(&door_.address), door_.length) == 0, "connecting");
        if (politely) {
            itc_wire::writer hello(itc_wire::hello, 0);
            send_text(p, hello.u32(itc_wire::version).frame());
            server_turn(0); // takes it in
            server_turn(0); // reads its hello
            read_answers(p);
        }
    }

    static void leave(process &p)
    {
        if (p.fd >= 0) {
            close(p.fd);
        }
        p = {};
    }

    static void send_text(const process &p, std::string_view bytes)
    {
        if (p.fd >= 0) {
            (void)!send(p.fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        }
    }
    static void send_bytes(const process &p, const std::vector<uint8_t> &bytes)
    {
        send_text(p, {reinterpret_cast<const char *>(bytes.data()), bytes.size()});
    }

    uint32_t some_process() { return processes_[input_.pick(PROCESSES)].number; }
    uint32_t some_box(const process &p)
    {
        const uint8_t which = input_.byte();
        const uint32_t owner = (which & 0xC0) == 0 ? some_process() : p.number; // mostly one's own
        return itc_wire::mbox_of(owner, which & 7);
    }
    std::string some_name()
    {
        static const std::string names[] = {"a", "b", "kap-vorn", "", std::string(255, 'x'), "a", "b", "c"};
        return names[input_.pick(std::size(names))];
    }

    // A frame as libitc would write it, but for its numbers.
    void send_frame(const process &p)
    {
        const auto type = static_cast<itc_wire::frame_type>(1 + input_.pick(19));
        itc_wire::writer frame(type, input_.byte() % 8);
        switch (type) {
        case itc_wire::hello:
            frame.u32(itc_wire::version);
            break;
        case itc_wire::create_box:
        case itc_wire::add_name:
            frame.u32(some_box(p)).text(some_name());
            break;
        case itc_wire::locate:
        case itc_wire::await_name:
        case itc_wire::tap:
            frame.text(some_name());
            break;
        case itc_wire::delete_box:
        case itc_wire::monitor:
        case itc_wire::name_of:
            frame.u32(some_box(p));
            break;
        case itc_wire::introduce:
            frame.u32(some_process());
            break;
        case itc_wire::closed:
            frame.u32(p.channel_to).u32(p.channel + input_.byte() % 2);
            break;
        case itc_wire::publish:
        case itc_wire::unpublish:
            frame.u32(some_box(p)).text(some_name()).text(some_name()).text(some_name());
            break;
        case itc_wire::subscribe:
            frame.u32(some_box(p)).u32(input_.byte() % 8).text(some_name()).text(some_name());
            break;
        case itc_wire::unsubscribe:
            frame.u32(some_box(p)).u32(input_.byte() % 8);
            break;
        default:
            break;
        }
        send_text(p, frame.frame());
    }

    static void read_answers(process &p)
    {
        while (p.fd >= 0) {
            uint8_t buffer[4096];
            alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
            iovec part{buffer, sizeof buffer};
            msghdr message{};
            message.msg_iov = &part;
            message.msg_iovlen = 1;
            message.msg_control = control;
            message.msg_controllen = sizeof control;
            const ssize_t got = recvmsg(p.fd, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
            if (got <= 0) {
                break;
            }
            close_descriptors(message);
            p.unread.insert(p.unread.end(), buffer, buffer + got);
        }
        take_frames(p);
    }

    static void close_descriptors(msghdr &message)
    {
        for (cmsghdr *c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
            int fd = -1;
            memcpy(&fd, CMSG_DATA(c), sizeof fd);
            close(fd);
        }
    }

    static void take_frames(process &p)
    {
        size_t at = 0;
        while (p.unread.size() - at >= sizeof(itc_wire::registry_frame)) {
            itc_wire::registry_frame head;
            memcpy(&head, p.unread.data() + at, sizeof head);
            require(head.length >= sizeof head && head.length <= itc_wire::registry_frame_limit,
                    "the length of a frame from the registry");
            require((head.type >= itc_wire::welcome && head.type <= itc_wire::removed) ||
                        (head.type >= itc_wire::tapped && head.type <= itc_wire::named),
                    "its type");
            if (head.length > p.unread.size() - at) {
                break;
            }
            take_frame(p, head, {p.unread.data() + at + sizeof head, head.length - sizeof head});
            at += head.length;
        }
        p.unread.erase(p.unread.begin(), p.unread.begin() + static_cast<std::ptrdiff_t>(at));
    }

    static void take_frame(process &p, const itc_wire::registry_frame &head, itc_wire::reader fields)
    {
        if (head.type >= itc_wire::tapped) {
            if (head.type == itc_wire::named) {
                (void)fields.text();
            }
            require(fields.whole(), "the fields of a frame about a tap");
            return;
        }
        const uint32_t first = fields.u32();
        switch (head.type) {
        case itc_wire::welcome:
            require(first > 0 && first < itc_wire::process_limit, "a process number");
            p.number = first;
            break;
        case itc_wire::channel:
            p.channel_to = first;
            p.channel = fields.u32();
            break;
        case itc_wire::added:
        case itc_wire::removed:
            (void)fields.u32();
            (void)fields.text();
            break;
        default:
            break;
        }
        require(fields.whole(), "the fields of a frame from the registry are those of its type");
    }

    const doorstep &door_;
    Input input_;
    std::array<process, PROCESSES> processes_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const doorstep door;
    static const policy rules;
    static const bool ready = server_open(door.fd, eventfd(0, EFD_CLOEXEC), rules) == 0;
    require(ready, "a server");
    Story(door, Input(data, size)).play();
    return 0;
}
