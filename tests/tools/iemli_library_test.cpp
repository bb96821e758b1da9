// The client library without a daemon: what it says where something is missing, and how it is woken. With a daemon it
// is tested end to end.
#include "itcd_fixture.hpp"
#include "kap_iemli.h"
#include "ns.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/eventfd.h>
#include <unistd.h>

namespace
{

constexpr uint32_t SOON_MS = 10;
constexpr uint32_t LONG_MS = 10000;

class ClientLibrary : public itc_test::ItcTest
{
protected:
    void TearDown() override
    {
        kap_iemli_free(client_);
        itc_exit();
        ItcTest::TearDown();
    }
    kap_iemli *make_client()
    {
        start_registry();
        itc_test::join("client");
        client_ = kap_iemli_new(7);
        EXPECT_NE(client_, nullptr);
        return client_;
    }
    kap_iemli *client_ = nullptr;
};

TEST_F(ClientLibrary, NeedsAMailbox)
{
    errno = 0;
    EXPECT_EQ(kap_iemli_new(1), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(ClientLibrary, NeedsARegistryThatIsThere)
{
    start_registry();
    itc_test::join("client");
    stop_registry(SIGKILL);
    EXPECT_EQ(itc_receive(nullptr, ITC_NO_TIMEOUT, ITC_FROM_ANY), nullptr); // it knows of the loss
    errno = 0;
    EXPECT_EQ(kap_iemli_new(1), nullptr);
    EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(ClientLibrary, LosesEachRequestAtOnceWhereThereIsNoService)
{
    kap_iemli *c = make_client();
    kap_iemli_answer answer{};
    answer.link_ref = 5;
    EXPECT_EQ(kap_iemli_is_published(c), 0);
    EXPECT_EQ(kap_iemli_wait_published(c, SOON_MS), 0);
    EXPECT_EQ(kap_iemli_open(c, &answer), uint32_t{KAP_IEMLI_LOST});
    EXPECT_EQ(answer.outcome, uint32_t{KAP_IEMLI_LOST});
    EXPECT_EQ(answer.link_ref, 0u) << "what does not belong to the answer is 0";
    EXPECT_EQ(kap_iemli_delete(c, 1, nullptr), uint32_t{KAP_IEMLI_LOST});
    EXPECT_EQ(kap_iemli_disable_rtt(c, 1, nullptr), uint32_t{KAP_IEMLI_LOST});
    EXPECT_EQ(kap_iemli_close(c, nullptr), uint32_t{KAP_IEMLI_LOST});
}

TEST_F(ClientLibrary, SendsNothingThatMakesNoSense)
{
    kap_iemli *c = make_client();
    kap_iemli_answer answer{};
    kap_iemli_link link{};
    EXPECT_EQ(kap_iemli_create(c, nullptr, &answer), uint32_t{KAP_IEMLI_INVALID});
    EXPECT_EQ(answer.outcome, uint32_t{KAP_IEMLI_INVALID});
    EXPECT_EQ(kap_iemli_create(c, &link, nullptr), uint32_t{KAP_IEMLI_INVALID}) << "no port";
    link.port = "seventeen-letters";
    EXPECT_EQ(kap_iemli_create(c, &link, nullptr), uint32_t{KAP_IEMLI_INVALID});
    EXPECT_EQ(kap_iemli_get_mac(c, "seventeen-letters", 1, nullptr), uint32_t{KAP_IEMLI_INVALID});
    EXPECT_EQ(kap_iemli_get_mac(c, nullptr, 1, nullptr), uint32_t{KAP_IEMLI_INVALID});
    link.port = "sixteen-letters-";
    EXPECT_EQ(kap_iemli_create(c, &link, nullptr), uint32_t{KAP_IEMLI_LOST}) << "sent, had there been a service";
    link.app_link_count = 1;
    EXPECT_EQ(kap_iemli_create(c, &link, nullptr), uint32_t{KAP_IEMLI_INVALID}) << "one, but where?";
    EXPECT_EQ(kap_iemli_update(c, 1, nullptr, 1, nullptr), uint32_t{KAP_IEMLI_INVALID});
    const kap_iemli_app_link pair{};
    EXPECT_EQ(kap_iemli_update(c, 1, &pair, UINT32_MAX, nullptr), uint32_t{KAP_IEMLI_INVALID});
}

TEST_F(ClientLibrary, SaysThatNothingCameAndThenThatTheRegistryIsLostEachTime)
{
    kap_iemli *c = make_client();
    kap_iemli_event event{};
    EXPECT_EQ(kap_iemli_next_event(c, 0, &event), 0);
    EXPECT_EQ(kap_iemli_next_event(c, SOON_MS, &event), 0);
    stop_registry(SIGKILL);
    for (int times = 0; times < 3; times++) {
        ASSERT_EQ(kap_iemli_next_event(c, KAP_IEMLI_FOREVER, &event), 1);
        EXPECT_EQ(event.kind, uint32_t{KAP_IEMLI_REGISTRY_LOST});
    }
    EXPECT_EQ(kap_iemli_open(c, nullptr), uint32_t{KAP_IEMLI_LOST});
}

TEST_F(ClientLibrary, IsWokenByAnInterruptBeforeOrWhileItWaits)
{
    kap_iemli *c = make_client();
    kap_iemli_event event{};
    kap_iemli_interrupt(c);
    EXPECT_EQ(kap_iemli_next_event(c, KAP_IEMLI_FOREVER, &event), 0);
    const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    struct both {
        int fd;
        kap_iemli *client;
    } seen{fd, c};
    const auto callback = [](void *arg) {
        const auto *b = static_cast<const both *>(arg);
        uint64_t count = 0;
        if (read(b->fd, &count, sizeof count) == sizeof count) {
            kap_iemli_interrupt(b->client);
        }
    };
    ASSERT_EQ(itc_watch_fd(fd, callback, &seen), 0);
    const uint64_t one = 1;
    ASSERT_EQ(write(fd, &one, sizeof one), static_cast<ssize_t>(sizeof one));
    EXPECT_EQ(kap_iemli_next_event(c, KAP_IEMLI_FOREVER, &event), 0);
    itc_unwatch_fd(fd);
    close(fd);
}

// Not a daemon: somebody who has its name only.
TEST_F(ClientLibrary, TellsOfTheServiceAsItComesAndGoes)
{
    start_registry();
    const itc_test::Gate publish;
    const itc_test::Gate withdraw;
    const itc_test::Child server([&] {
        const uint32_t own = itc_test::join("server");
        if (!publish.wait() || ns_publish("KAP_IEMLI_SERVICE_NAME", "", own, "") != 0) {
            return 1;
        }
        return withdraw.wait() && ns_unpublish("KAP_IEMLI_SERVICE_NAME", "", own, "") == 0 ? 0 : 2;
    });
    itc_test::join("client");
    client_ = kap_iemli_new(7);
    ASSERT_NE(client_, nullptr);
    kap_iemli_event event{};
    publish.open();
    ASSERT_EQ(kap_iemli_wait_published(client_, LONG_MS), 1);
    EXPECT_EQ(kap_iemli_is_published(client_), 1);
    ASSERT_EQ(kap_iemli_next_event(client_, LONG_MS, &event), 1);
    EXPECT_EQ(event.kind, uint32_t{KAP_IEMLI_PUBLISHED});
    kap_iemli_set_patience(client_, SOON_MS);
    EXPECT_EQ(kap_iemli_open(client_, nullptr), uint32_t{KAP_IEMLI_TIMED_OUT});
    withdraw.open();
    ASSERT_EQ(kap_iemli_next_event(client_, LONG_MS, &event), 1);
    EXPECT_EQ(event.kind, uint32_t{KAP_IEMLI_WITHDRAWN});
    EXPECT_EQ(kap_iemli_is_published(client_), 0);
}

TEST(ClientLibraryText, IsThereForEverything)
{
    for (const uint32_t number : {0u, 1u, 2u, 3u, 4u, 5u, 18u, 99u, 1000u, UINT32_MAX}) {
        EXPECT_STRNE(kap_iemli_outcome_text(number), "");
        EXPECT_STRNE(kap_iemli_reason_text(number), "");
        EXPECT_STRNE(kap_iemli_status_text(0, number), "");
    }
    EXPECT_STREQ(kap_iemli_reason_text(KAP_IEMLI_UNKNOWN_PORT_NAME), "no such port");
    EXPECT_STREQ(kap_iemli_reason_text(10), "an unknown reason");
    EXPECT_STREQ(kap_iemli_status_text(1, 0), "enabled");
    EXPECT_STREQ(kap_iemli_status_text(0, KAP_IEMLI_LOCKED), "disabled with reason locked");
}

} // namespace
