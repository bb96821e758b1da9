// Network namespaces.
#include "manager/links/namespace.hpp"

#include <gmock/gmock.h>

#include "fake_platform.hpp"

namespace
{

using fake::Trace;
using testing::ElementsAre;

class Namespace : public fake::PlatformTest
{
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        fake::add_netns("far");
    }
};

TEST_F(Namespace, BuildsThePathOfAName)
{
    char path[64];
    EXPECT_EQ(netns_path("far", path, sizeof path), 18);
    EXPECT_STREQ(path, "/var/run/netns/far");
    char small[8];
    EXPECT_EQ(netns_path("far", small, sizeof small), 18);
    EXPECT_STREQ(small, "/var/ru");
}

TEST_F(Namespace, EntersAndLeavesNothingOpen)
{
    EXPECT_EQ(enter_netns("far"), 0);
    EXPECT_EQ(fake::current_netns(), "far");
    EXPECT_EQ(fake::open_netns_fds(), 0u);
    EXPECT_TRUE(fake::traces().empty());
}

TEST_F(Namespace, CannotEnterWhatIsNotThere)
{
    EXPECT_EQ(enter_netns("none"), 1);
    EXPECT_EQ(fake::current_netns(), "");
    EXPECT_THAT(fake::traces(),
                ElementsAre(Trace{1, "Unable to open '/var/run/netns/none' file: No such file or directory"}));
}

TEST_F(Namespace, IsNamedByAFileNameAndNotByAWay)
{
    for (const char *name : {"", ".", "..", "../netns/far", "far/", "/far", "a/b"}) {
        fake::traces().clear();
        fake::add_netns(name); // so that it would be found
        EXPECT_EQ(enter_netns(name), 1) << name;
        EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, std::string("Unable to open '/var/run/netns/") + name +
                                                             "' file: Invalid argument"}));
    }
    EXPECT_EQ(fake::current_netns(), "");
    EXPECT_EQ(fake::open_netns_fds(), 0u);
}

TEST_F(Namespace, MayHaveANameWithDotsInIt)
{
    for (const char *name : {"...", ".far", "far..1"}) {
        fake::add_netns(name);
        EXPECT_EQ(enter_netns(name), 0) << name;
        EXPECT_EQ(fake::current_netns(), name);
    }
}

TEST_F(Namespace, IsNotEnteredByPartOfItsName)
{
    const std::string name(4096, 'a');
    fake::add_netns(std::string(4095 - strlen("/var/run/netns/"), 'a'));
    EXPECT_EQ(enter_netns(name.c_str()), 1);
    EXPECT_EQ(fake::current_netns(), "");
}

TEST_F(Namespace, IsNoOtherFileThatLiesThere)
{
    fake::add_other_file("far");
    EXPECT_EQ(enter_netns("far"), 1);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, "Unable to open '/var/run/netns/far' file: Invalid argument"}));
    EXPECT_EQ(fake::open_netns_fds(), 0u);
}

TEST_F(Namespace, ClosesItsHandleWhenItMayNotEnter)
{
    fake::set_setns_fails(1);
    EXPECT_EQ(enter_netns("far"), 1);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, "Unable to enter 'far': Operation not permitted"}));
    EXPECT_EQ(fake::open_netns_fds(), 0u);
}

TEST_F(Namespace, ReturnsToWhereItWas)
{
    const int fd = open_current_netns();
    ASSERT_GE(fd, 0);
    ASSERT_EQ(enter_netns("far"), 0);
    EXPECT_EQ(return_to_netns(fd), 0);
    EXPECT_EQ(fake::current_netns(), "");
    EXPECT_EQ(fake::open_netns_fds(), 0u);
}

TEST_F(Namespace, ClosesTheHandleWhenItCannotReturn)
{
    const int fd = open_current_netns();
    ASSERT_EQ(enter_netns("far"), 0);
    fake::set_setns_fails(1);
    EXPECT_EQ(return_to_netns(fd), 1);
    EXPECT_THAT(fake::traces(),
                ElementsAre(Trace{1, "Failed to return to previous namespace: Operation not permitted"}));
    EXPECT_EQ(fake::open_netns_fds(), 0u);
    EXPECT_EQ(fake::current_netns(), "far");
}

TEST_F(Namespace, VisitsAndComesBack)
{
    int previous = -1;
    ASSERT_TRUE(netns_visit_begin("far", &previous));
    EXPECT_EQ(fake::current_netns(), "far");
    netns_visit_end("far", previous);
    EXPECT_EQ(fake::current_netns(), "");
    EXPECT_EQ(fake::open_netns_fds(), 0u);
    EXPECT_TRUE(fake::traces().empty());
}

TEST_F(Namespace, KeepsTheHandleOfAVisitThatFailed)
{
    int previous = -1;
    EXPECT_FALSE(netns_visit_begin("none", &previous));
    EXPECT_THAT(fake::traces(),
                ElementsAre(Trace{1, "Unable to open '/var/run/netns/none' file: No such file or directory"},
                            Trace{1, "Failed to enter none namespace"}));
    EXPECT_EQ(fake::open_netns_fds(), 1u);
}

TEST_F(Namespace, KeepsOneHandleHoweverManyVisitsFail)
{
    int first = -1;
    EXPECT_FALSE(netns_visit_begin("none", &first));
    for (int i = 0; i < 2000; i++) {
        int previous = -1;
        EXPECT_FALSE(netns_visit_begin("none", &previous));
        ASSERT_GE(previous, 0);
        ASSERT_EQ(fake::open_netns_fds(), 1u);
        EXPECT_TRUE(fake::is_open_netns_fd(previous)) << "the newest is kept";
    }
    fake::set_own_netns_readable(false);
    int none = 0;
    EXPECT_FALSE(netns_visit_begin("none", &none));
    EXPECT_EQ(none, -1);
    EXPECT_EQ(fake::open_netns_fds(), 1u) << "what was not opened takes no other's place";
}

TEST_F(Namespace, ClosesWhatItKeptOnlyWhenAnotherVisitFails)
{
    int kept = -1;
    EXPECT_FALSE(netns_visit_begin("none", &kept));
    int previous = -1;
    ASSERT_TRUE(netns_visit_begin("far", &previous));
    netns_visit_end("far", previous);
    EXPECT_EQ(fake::open_netns_fds(), 1u);
    EXPECT_TRUE(fake::is_open_netns_fd(kept));
}

TEST_F(Namespace, VisitsEvenWhenItCannotComeBack)
{
    fake::set_own_netns_readable(false);
    int previous = 0;
    ASSERT_TRUE(netns_visit_begin("far", &previous));
    EXPECT_LT(previous, 0);
    netns_visit_end("far", previous);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{4, "WARNING:Unable to open '/proc/self/ns/net': Permission denied."},
                                            Trace{4, "WARNING:Failed to exit far namespace (name space fd -1)."}));
    EXPECT_EQ(fake::current_netns(), "far");
}

TEST_F(Namespace, StaysWhereItIsWhenTheReturnFails)
{
    int previous = -1;
    ASSERT_TRUE(netns_visit_begin("far", &previous));
    fake::set_setns_fails(1);
    netns_visit_end("far", previous);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, "Failed to return to previous namespace: Operation not permitted"},
                                            Trace{4, "WARNING:Failed to exit far namespace (name space fd " +
                                                         std::to_string(previous) + ")."}));
    EXPECT_EQ(fake::current_netns(), "far");
    EXPECT_EQ(fake::open_netns_fds(), 0u);
}

} // namespace
