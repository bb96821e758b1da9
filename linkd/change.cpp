// The words and the JSON of what becomes of a link (change.hpp).
#include "change.hpp"

namespace linkd
{

const char *name_of(link_state state)
{
    switch (state) {
    case link_state::waiting:
        return "waiting";
    case link_state::rejected:
        return "rejected";
    case link_state::disabled:
        return "disabled";
    case link_state::enabled:
        return "enabled";
    case link_state::gone:
        return "gone";
    }
    return "unknown";
}

nlohmann::json json_of(const link_change &change)
{
    return {{"id", change.id},
            {"at_us", change.at_us},
            {"link", change.link.name},
            {"port", change.link.port},
            {"vlan", change.link.vlan},
            {"far", change.link.far},
            {"from", name_of(change.from)},
            {"to", name_of(change.to)},
            {"reason", change.reason},
            {"lasted_us", change.lasted_us},
            {"known", change.known.is_null() ? nlohmann::json::object() : change.known}};
}

} // namespace linkd
