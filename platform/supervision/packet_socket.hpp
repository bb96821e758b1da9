// A packet socket for delay measurements on every interface of one network namespace.
//
// It belongs to the namespace in which the calling thread is when it is opened, and all that is asked through it
// (interface index, MTU, VLAN of a device) is answered for that namespace, from whatever thread. One socket serves
// any number of sessions: a socket each would be handed every received frame each.
//
// The kernel takes the 802.1Q tag off a received frame before a packet socket sees it, and a socket that is bound to
// the inner EtherType does not get the frame at all; so the socket is bound for all protocols, a filter in the kernel
// lets through delay measurements only, and the tag is read from the auxiliary data. The filter can also ask for a word
// in the dummy bytes: what it turns away takes no room in the queue, however much of it comes.
#pragma once

#include <sys/socket.h>

#include <linux/if_packet.h>

#include <cstddef>
#include <cstdint>

#include "vorn_types.hpp"

namespace packet
{

inline constexpr size_t BATCH = 32;
inline constexpr size_t MAX_ETHER_TYPES = 16;

// What the dummy bytes of a wanted frame hold, besides.
enum class marks : uint8_t {
    ANY,
    OURS_OR_NONE, // none, or the word at its place
    OURS,
};

struct filter {
    uint8_t action; // ecpri::ACTION_* of the frames that are wanted
    uint16_t ether_types[MAX_ETHER_TYPES];
    size_t count;
    marks wanted = marks::ANY;
    uint32_t word = 0;        // as it is read
    uint32_t word_offset = 0; // in a frame without tag
};

struct received {
    bool to_interface; // sent to the address of the very interface, and not to a group or another one
    bool outgoing;     // this machine's own; only where sockets share the frames
    const uint8_t *bytes;
    size_t available; // at `bytes`
    size_t length;    // on the wire, without tag
    int if_index;
    bool tagged;
    uint16_t tpid;
    uint16_t tci;
    int64_t stamp; // nanoseconds of the real-time clock; 0: none
};

// Room for BATCH received frames. `frame_bytes` of each are kept.
struct batch {
    received frames[BATCH];
    size_t frame_bytes;
    uint8_t *bytes;
    mmsghdr headers[BATCH];
    iovec vectors[BATCH];
    sockaddr_ll addresses[BATCH];
    alignas(cmsghdr) uint8_t control[BATCH][CMSG_SPACE(sizeof(tpacket_auxdata)) + CMSG_SPACE(16) + CMSG_SPACE(16)];
};

// False when there is no memory.
bool batch_init(batch *b, size_t frame_bytes);
void batch_free(batch *b);

// Returns a descriptor (non-blocking, closed on exec), or -1 and errno.
int open_socket(const filter &f);
// Replaces the filter; false and errno when the kernel refuses it.
bool set_filter(int fd, const filter &f);
// Has several sockets share the frames, all of one sender to one of them: each joins the group, the first with
// NO_GROUP. False and errno when the kernel cannot.
inline constexpr int NO_GROUP = -1;
bool share_by_sender(int fd, int *group);
// Takes what has arrived, up to BATCH frames. Returns how many; 0: nothing more is there.
size_t receive(int fd, batch *b);
// What the kernel said of one frame of a batch: its bytes, where it came from, its tag, its stamp.
received describe(batch *b, size_t i);
// Sends a whole frame, tag included. Returns 0 or an errno value.
int send_frame(int fd, int if_index, const uint8_t *frame, size_t length);
// Frames that the kernel dropped since the last call because the socket was full.
uint32_t take_drops(int fd);

// ---- Questions about an interface in the socket's namespace ----

// 0: no such interface.
int interface_index(int fd, const char *name);
bool interface_name(int fd, int if_index, char (&name)[16]);
bool interface_mac(int fd, const char *name, mac_address *mac);
// 0: unknown.
int interface_mtu(int fd, const char *name);
enum class condition : uint8_t {
    ABSENT,
    NOT_ETHERNET,
    DOWN,
    NO_CARRIER,
    UP,
};
condition interface_condition(int fd, const char *name);
// The VLAN that the interface is the device of; -1: it is none.
int interface_vlan(int fd, const char *name);

// Lets frames to `mac` in, which is not the interface's own. Counted per socket, interface and address; ends with the
// interface or the socket at the latest.
bool let_in(int fd, int if_index, const mac_address &mac);
void shut_out(int fd, int if_index, const mac_address &mac);
// The same for frames to whatever address.
bool let_all_in(int fd, int if_index);
void let_all_in_no_more(int fd, int if_index);

} // namespace packet
