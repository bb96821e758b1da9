// What becomes of a link, in words and as JSON.
#include "change.hpp"

#include <gtest/gtest.h>

#include <set>

namespace
{

TEST(Change, EveryStateHasANameOfItsOwn)
{
    std::set<std::string> names;
    for (int i = 0; i < linkd::LINK_STATES; i++) {
        names.insert(linkd::name_of(static_cast<linkd::link_state>(i)));
    }
    EXPECT_EQ(names, (std::set<std::string>{"waiting", "rejected", "disabled", "enabled", "gone"}));
}

TEST(Change, IsJsonWithEveryMemberOfTheProtocol)
{
    const linkd::link_change change{7,
                                    1000,
                                    {"to-north", "IDL_A1", 100, "02:00:00:00:00:02"},
                                    linkd::link_state::enabled,
                                    linkd::link_state::disabled,
                                    "no connectivity",
                                    500,
                                    nullptr};
    EXPECT_EQ(linkd::json_of(change),
              nlohmann::json::parse(R"({"id":7,"at_us":1000,"link":"to-north","port":"IDL_A1","vlan":100,
                 "far":"02:00:00:00:00:02","from":"enabled","to":"disabled","reason":"no connectivity","lasted_us":500,
                 "known":{}})"));
}

} // namespace
