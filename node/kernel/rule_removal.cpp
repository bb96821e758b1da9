// Takes away what the flow manager left (rule_removal.hpp).
#include "kernel/rule_removal.hpp"

#include "kernel/nft_context.hpp"
#include "kernel/rule_layout.hpp"

#include <algorithm>

namespace kap_node
{

std::optional<kernel_refusal> remove_rule_table(const std::string &name_space, bool *was_there)
{
    nft_context filter(name_space);
    json found;
    *was_there = false;
    if (auto refused = filter.list({{"list", {{"tables", {{"family", "netdev"}}}}}}, found)) {
        return refused;
    }
    *was_there = std::any_of(found.begin(), found.end(), [](const json &entry) {
        return entry.contains("table") && entry["table"].value("name", "") == RULE_TABLE;
    });
    if (!*was_there) {
        return std::nullopt;
    }
    return filter.run(json::array({{{"delete", {{"table", {{"family", "netdev"}, {"name", RULE_TABLE}}}}}}}));
}

} // namespace kap_node
