// Types that every module of the daemon shares: integers in network byte order, MAC addresses, and the event record
// with which the lower-layer clients report to the manager.
#pragma once

#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

// An integer as it stands in a message of network byte order. It converts to nothing by itself, so that a forgotten
// conversion does not compile.
struct be16 {
    uint16_t raw;
};

struct be32 {
    uint32_t raw;
};

inline be16 to_be16(uint16_t host) { return be16{htons(host)}; }
inline be32 to_be32(uint32_t host) { return be32{htonl(host)}; }
inline uint16_t from_be16(be16 net) { return ntohs(net.raw); }
inline uint32_t from_be32(be32 net) { return ntohl(net.raw); }

struct mac_address {
    uint8_t byte[6];
};

inline bool mac_equal(const mac_address &a, const mac_address &b) { return memcmp(a.byte, b.byte, sizeof a.byte) == 0; }

// The address as a number, for keys and orders.
inline uint64_t mac_bits(const mac_address &mac)
{
    uint64_t bits = 0;
    for (const uint8_t byte : mac.byte) {
        bits = bits << 8 | byte;
    }
    return bits;
}

// The text form of a MAC address, for format strings.
#define MAC_FMT "%02X:%02X:%02X:%02X:%02X:%02X"
#define MAC_ARGS(m) (m).byte[0], (m).byte[1], (m).byte[2], (m).byte[3], (m).byte[4], (m).byte[5]

// Numbers with names, from one list X(value, name, ...): an enum, and the function that names its values. What is not
// in the list is `unknown`.
#define VORN_ENUMERATOR(value, name, ...) name = (value),
#define VORN_NAME_OF(value, name, ...)                                                                                 \
    case value:                                                                                                        \
        return #name;
#define VORN_NAMED_ENUM(type, LIST, name_of, unknown)                                                                  \
    enum type : uint32_t {                                                                                             \
        LIST(VORN_ENUMERATOR)                                                                                          \
    };                                                                                                                 \
    inline const char *name_of(uint32_t value)                                                                         \
    {                                                                                                                  \
        switch (value) {                                                                                               \
            LIST(VORN_NAME_OF)                                                                                         \
        }                                                                                                              \
        return unknown;                                                                                                \
    }                                                                                                                  \
    static_assert(true) // takes the semicolon

// Port names are significant over this many characters.
inline constexpr size_t PORT_NAME_LEN = 16;

inline bool port_name_equal(const char *a, const char *b) { return strncmp(a, b, PORT_NAME_LEN) == 0; }

// ---- Events from the lower-layer clients to the manager ----

enum client_event_type : uint32_t {
    SERVICE_EVENT = 0,
    PROCEDURE_RESULT_EVENT = 1,
    IEPCSI_EVENT = 2,
    PATHS_WANTED_EVENT = 3, // the automation agent asks for the path of every link; no payload
};

// Payload word 1 of a SERVICE_EVENT: three per client, in one numbering.
enum service_event : uint32_t {
    PMI_SERVICE_UP = 1,
    PMI_SERVICE_DOWN = 2,
    PMI_SERVICE_FAULTY = 3,
    FMI_SERVICE_UP = 4,
    FMI_SERVICE_DOWN = 5,
    FMI_SERVICE_FAULTY = 6,
    EMI_SERVICE_UP = 7,
    EMI_SERVICE_DOWN = 8,
    EMI_SERVICE_FAULTY = 9,
    IEPCSI_SERVICE_UP = 10,
    IEPCSI_SERVICE_DOWN = 11,
    IEPCSI_SERVICE_FAULTY = 12,
    AASI_SERVICE_UP = 13,
    AASI_SERVICE_DOWN = 14,
    AASI_SERVICE_FAULTY = 15,
};

// Payload word 1 of a PROCEDURE_RESULT_EVENT.
enum procedure_result : uint32_t {
    PMI_ENABLE_PORT_VLAN_DONE = 1,
    PMI_ENABLE_PORT_VLAN_FAILED = 2,
    PMI_DISABLE_PORT_VLAN_DONE = 3,
    PMI_DISABLE_PORT_VLAN_FAILED = 4,
    EMI_ADD_ENDPOINT_DONE = 5,
    EMI_ADD_ENDPOINT_FAILED = 6,
    EMI_REMOVE_ENDPOINT_DONE = 7,
    EMI_REMOVE_ENDPOINT_FAILED = 8,
};

// Payload word 1 of an IEPCSI_EVENT.
enum port_event : uint32_t {
    PORT_OPER_UP = 1,
    PORT_OPER_DOWN = 2,
    PORT_ADM_UNLOCKED = 3,
    PORT_ADM_LOCKED = 4,
    PORT_VLAN_ADDED = 5,
    PORT_VLAN_REMOVED = 6,
};

// The record handed to the manager's callback; it is the client's own and valid only during the call.
struct client_event {
    client_event_type type;
    union {
        uint32_t word[6];
        struct {
            uint32_t id; // service_event
        } service;
        struct {
            uint32_t code; // procedure_result
            uint32_t procedure_ref;
        } result;
        struct {
            uint32_t id; // port_event 1 to 4
            char port_name[PORT_NAME_LEN];
        } port;
        struct {
            uint32_t id; // port_event 5 and 6
            uint16_t vlan_id;
            char port_name[PORT_NAME_LEN];
        } vlan;
    };
};

static_assert(sizeof(client_event) == 28);
static_assert(offsetof(client_event, word) == 4);
static_assert(offsetof(client_event, port.port_name) == 8);
static_assert(offsetof(client_event, vlan.vlan_id) == 8);
static_assert(offsetof(client_event, vlan.port_name) == 10);

// What the manager gives to every client: called synchronously from inside the client's message handling.
using client_event_handler = void (*)(const client_event *event);
