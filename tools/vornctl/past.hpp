// The changes of the past as kap-linkd gives them: in pages, ascending by id, without a gap and none twice.
#pragma once

#include <functional>

#include "asking.hpp"

namespace vornctl
{

// From which change on: an id, after which the first is, or a moment.
struct since {
    std::optional<uint64_t> id;
    std::optional<int64_t> at_us;
};
// "1234" as an id, else a moment. Throws failure for what is none.
since read_since(const std::string &word);

// All changes with an id above `after`, in order; only of `link` where that is not empty. `take` gives false when it
// has enough. Gives the last id that was taken, or `after`. Throws linkd_client::failure.
uint64_t each_change(linkd_client::connection &linkd, uint64_t after, const std::string &link,
                     const std::function<bool(const nlohmann::json &)> &take);

} // namespace vornctl
