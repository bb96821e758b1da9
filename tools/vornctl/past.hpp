// The changes of the past as kap-linkd gives them: in pages, without a gap and none twice.
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

// The newest `limit` of the changes that are wanted, ascending; only of `link` where that is not empty. They are asked
// for from the newest on back, page by page, and no further than needed. Throws linkd_client::failure.
std::vector<nlohmann::json> newest_changes(linkd_client::connection &linkd, const since &from, const std::string &link,
                                           size_t limit, const std::function<bool(const nlohmann::json &)> &wanted);

// The id after which the first change from that moment on is. Throws linkd_client::failure.
uint64_t id_before(linkd_client::connection &linkd, int64_t at_us);

} // namespace vornctl
