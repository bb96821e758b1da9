#include "watcher.hpp"

#include "say.hpp"

#include <algorithm>

namespace responder
{

namespace
{

constexpr unsigned QUIET_SECONDS = 10; // after which an episode is over
constexpr size_t MOST_LINES = 100;     // of peers

using ull = unsigned long long;

void say_condition(const std::string &name, packet::condition now, const mac_address &mac)
{
    switch (now) {
    case packet::condition::ABSENT:
        say("%s is not there", name.c_str());
        break;
    case packet::condition::NOT_ETHERNET:
        say("%s is no Ethernet interface", name.c_str());
        break;
    case packet::condition::DOWN:
        say("%s is down", name.c_str());
        break;
    case packet::condition::NO_CARRIER:
        say("%s has no carrier", name.c_str());
        break;
    case packet::condition::UP:
        say("%s is up, its address is " MAC_FMT, name.c_str(), MAC_ARGS(mac));
        break;
    }
}

} // namespace

watcher::watcher(far_end *engine, const std::vector<std::string> &interfaces)
    : engine_(engine), too_often_{"somebody asks too often: what is above the bound stays without answer",
                                  "nobody asks too often any more"},
      too_many_{"more requests than can be read: the kernel drops some", "no more requests than can be read"},
      not_sent_{"answers cannot be sent", "all answers are sent again"}
{
    for (const std::string &name : interfaces) {
        interfaces_.push_back({name, std::nullopt, {}});
    }
}

void watcher::episode::look(uint64_t counter)
{
    const bool grew = counter != seen;
    if (grew && !on) {
        on = true;
        at_begin = seen;
        say("%s", begins);
    }
    quiet_seconds = grew ? 0 : quiet_seconds + 1;
    seen = counter;
    if (on && quiet_seconds >= QUIET_SECONDS) {
        on = false;
        say("%s; it were %llu", ends, static_cast<ull>(counter - at_begin));
    }
}

void watcher::look_at(watched &which) const
{
    const int fd = far_end_socket(engine_);
    mac_address mac{};
    packet::condition now = packet::interface_condition(fd, which.name.c_str());
    if (now == packet::condition::UP && !packet::interface_mac(fd, which.name.c_str(), &mac)) {
        now = packet::condition::ABSENT;
    }
    if (which.condition != now || (now == packet::condition::UP && !mac_equal(mac, which.mac))) {
        which.condition = now;
        which.mac = mac;
        say_condition(which.name, now, mac);
    }
}

void watcher::look()
{
    far_end_look_anew(engine_);
    for (watched &which : interfaces_) {
        look_at(which);
    }
    const far_end_totals totals = far_end_get_totals(engine_);
    too_often_.look(totals.dropped);
    too_many_.look(totals.lost);
    not_sent_.look(totals.failed);
}

void watcher::say_counters() const
{
    std::vector<far_end_counters> peers = far_end_get_counters(engine_);
    const size_t shown = std::min(peers.size(), MOST_LINES);
    std::partial_sort(peers.begin(), peers.begin() + static_cast<ptrdiff_t>(shown), peers.end(),
                      [](const far_end_counters &a, const far_end_counters &b) { return a.requests > b.requests; });
    for (size_t i = 0; i < shown; i++) {
        const far_end_counters &c = peers[i];
        say("%s VLAN %u " MAC_FMT ": %llu requests, %llu answered, %llu above the bound, %llu not sent",
            c.interface.c_str(), unsigned{c.vlan}, MAC_ARGS(c.peer), static_cast<ull>(c.requests),
            static_cast<ull>(c.answered), static_cast<ull>(c.dropped), static_cast<ull>(c.failed));
    }
    const far_end_totals t = far_end_get_totals(engine_);
    say("%zu senders: %llu requests, %llu answered, %llu above the bound, %llu not sent, %llu dropped by the kernel, "
        "%llu of senders not counted by themselves",
        peers.size(), static_cast<ull>(t.requests), static_cast<ull>(t.answered), static_cast<ull>(t.dropped),
        static_cast<ull>(t.failed), static_cast<ull>(t.lost), static_cast<ull>(t.uncounted));
}

} // namespace responder
