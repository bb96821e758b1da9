// Entries that are touched without being meant (bystanders.hpp).
#include "kernel/bystanders.hpp"

#include <cerrno>

namespace kap_node
{

std::optional<kernel_refusal> bystanders::before(const address_entry &entry)
{
    if (!entry.forwarding || entry.vlan_id != 0 || on_.vlans.empty()) {
        return std::nullopt;
    }
    std::optional<kernel_refusal> refused;
    if (!noted_) {
        refused = read_entries(ask_, 0, on_.master, were_);
    }
    noted_ = !refused;
    touched_.insert(entry.address);
    return refused;
}

std::optional<kernel_refusal> bystanders::put_right()
{
    entry_table now;
    if (!noted_ || touched_.empty()) {
        return std::nullopt;
    }
    auto refused = read_entries(ask_, 0, on_.master, now);
    for (const mac &address : touched_) {
        for (const uint16_t vlan_id : on_.vlans) {
            if (!refused) {
                refused = put_right({.forwarding = true, .address = address, .vlan_id = vlan_id}, now);
            }
        }
    }
    touched_.clear();
    noted_ = false;
    return refused;
}

// What had been learnt there is not missed: the bridge looks at no VLAN.
std::optional<kernel_refusal> bystanders::put_right(const address_entry &entry, const entry_table &now)
{
    const auto was = were_.find(entry);
    const auto is = now.find(entry);
    if (was != were_.end() && was->second.fixed) {
        const bool same = is != now.end() && is->second == was->second;
        return same ? std::nullopt : put_back(ask_, entry, was->second);
    }
    if (is == now.end() || !is->second.fixed || is->second.port != on_.index) {
        return std::nullopt;
    }
    auto refused = take_entry(ask_, on_.index, entry);
    return refused && refused->error == ENOENT ? std::nullopt : refused;
}

} // namespace kap_node
