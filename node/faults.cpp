// The table of faults (faults.hpp).
#include "faults.hpp"

#include <algorithm>

namespace kap_node
{

namespace
{

const char *kind_text(fault_kind kind)
{
    switch (kind) {
    case fault_kind::reject:
        return "reject";
    case fault_kind::delay:
        return "delay";
    case fault_kind::silent:
        return "silent";
    }
    return "unknown";
}

} // namespace

void fault_table::add(fault entry)
{
    if (entry.left > 0) {
        faults_.push_back(std::move(entry));
    }
}

std::optional<fault> fault_table::take(uint32_t request)
{
    const auto found = std::find_if(faults_.begin(), faults_.end(), [&](const fault &entry) {
        return entry.request == request || entry.request == ANY_REQUEST;
    });
    if (found == faults_.end()) {
        return std::nullopt;
    }
    fault taken = *found;
    if (--found->left == 0) {
        faults_.erase(found);
    }
    return taken;
}

nlohmann::json fault_table::show() const
{
    auto list = nlohmann::json::array();
    for (const fault &entry : faults_) {
        list.push_back({{"kind", kind_text(entry.kind)},
                        {"request", entry.request_name},
                        {"left", entry.left},
                        {"value", entry.value}});
    }
    return list;
}

} // namespace kap_node
