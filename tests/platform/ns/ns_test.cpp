/* The name service, on a real registry: who is told of which service, when, and in which bytes. */
#include "ns.h"

#include "itcd_fixture.hpp"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <unistd.h>

using namespace itc_test;

namespace
{

constexpr uint32_t GO = 0x6001;

using Bytes = std::vector<uint8_t>;

Bytes bytes_of(itc_msg *msg)
{
    if (msg == nullptr) {
        return {};
    }
    const auto *at = reinterpret_cast<const uint8_t *>(msg);
    Bytes bytes(at, at + itc_size(msg));
    EXPECT_EQ(itc_sender(msg), ITC_NO_MBOX);
    itc_free(&msg);
    return bytes;
}

Bytes next() { return bytes_of(receive_any()); }
Bytes next_now() { return bytes_of(itc_receive(nullptr, 0, ITC_FROM_ANY)); }

void put(Bytes &to, uint32_t word)
{
    uint8_t bytes[4];
    memcpy(bytes, &word, 4);
    to.insert(to.end(), bytes, bytes + 4);
}

Bytes response(uint32_t sid)
{
    Bytes b;
    put(b, 0x1900000);
    put(b, sid);
    return b;
}

Bytes indication(uint32_t msgno, uint32_t sid, uint32_t mbox, const char *path)
{
    Bytes b;
    for (const uint32_t word : {msgno, sid, mbox, 0u, 0u}) {
        put(b, word);
    }
    b.insert(b.end(), path, path + strlen(path) + 1);
    return b;
}

Bytes added(uint32_t sid, uint32_t mbox, const char *path) { return indication(0x1900001, sid, mbox, path); }
Bytes removed(uint32_t sid, uint32_t mbox, const char *path) { return indication(0x1900002, sid, mbox, path); }

class NameService : public ItcTest
{
protected:
    void SetUp() override
    {
        ItcTest::SetUp();
        if (!IsSkipped()) {
            start_registry();
        }
    }
};

TEST_F(NameService, ASubscriberIsToldOfAServiceThatWasThereBefore)
{
    const uint32_t own = join("own");
    ASSERT_EQ(ns_publish("service", "tn", own, "the path"), 0);
    ASSERT_EQ(ns_subscribe("service", "tn", own), 0);
    EXPECT_EQ(next_now(), response(1));
    EXPECT_EQ(next_now(), added(1, own, "the path"));
    EXPECT_EQ(next_now(), Bytes{});
}

TEST_F(NameService, ASubscriberIsToldOfAServiceThatAppearsLaterAndOfItsEnd)
{
    const uint32_t own = join("own");
    ASSERT_EQ(ns_subscribe("service", "tn", own), 0);
    EXPECT_EQ(next(), response(1));
    ASSERT_EQ(ns_publish("service", "tn", own, ""), 0);
    EXPECT_EQ(next(), added(1, own, "service"));
    ASSERT_EQ(ns_unpublish("service", "tn", own, ""), 0);
    EXPECT_EQ(next(), removed(1, own, "service"));
    EXPECT_EQ(next_now(), Bytes{});
}

TEST_F(NameService, ThePathIsTheServicesNameIfNoneIsGiven)
{
    const uint32_t own = join("own");
    ASSERT_EQ(ns_publish("KAP_IEMLI_SERVICE_NAME", "", own, ""), 0);
    ASSERT_EQ(itc_add_name(own, "KAP_IEMLI_SERVICE_NAME"), 0);
    ASSERT_EQ(ns_subscribe("KAP_IEMLI_SERVICE_NAME", "", own), 0);
    EXPECT_EQ(next(), response(1));
    EXPECT_EQ(next(), added(1, own, "KAP_IEMLI_SERVICE_NAME"));
    EXPECT_EQ(itc_locate("KAP_IEMLI_SERVICE_NAME"), own);
}

TEST_F(NameService, AServiceOfAnotherProcessIsLocatedByItsPath)
{
    Child server([] {
        const uint32_t mbox = join("agent mailbox");
        if (ns_publish("automationagentsi", "tn", mbox, "agent mailbox") != 0) {
            return 1;
        }
        itc_msg *msg = receive(GO);
        const bool told = msg != nullptr;
        itc_free(&msg);
        itc_exit();
        return told ? 0 : 2;
    });
    const uint32_t own = join("own");
    ASSERT_EQ(ns_subscribe("automationagentsi", "tn", own), 0);
    EXPECT_EQ(next(), response(1));
    const Bytes ind = next();
    ASSERT_GT(ind.size(), 20u);
    EXPECT_STREQ(reinterpret_cast<const char *>(ind.data()) + 20, "agent mailbox");
    const uint32_t mbox = itc_locate("agent mailbox");
    EXPECT_EQ(ind, added(1, mbox, "agent mailbox"));
    itc_msg *go = itc_alloc(4, GO);
    itc_send(&go, mbox, ITC_MY_MBOX);
    EXPECT_EQ(next(), removed(1, mbox, "agent mailbox"));
    EXPECT_EQ(server.finish(), 0);
}

TEST_F(NameService, AServiceWhoseProcessIsKilledIsRemoved)
{
    Child server([] {
        const uint32_t mbox = join("server");
        ns_publish("service", "", mbox, "");
        receive(GO);
        return 1;
    });
    const uint32_t own = join("own");
    ASSERT_EQ(ns_subscribe("service", "anywhere", own), 0);
    EXPECT_EQ(next(), response(1));
    EXPECT_EQ(next().size(), 20 + sizeof "service");
    server.kill();
    const Bytes ind = next();
    ASSERT_EQ(ind.size(), 20 + sizeof "service");
    EXPECT_EQ(Bytes(ind.begin(), ind.begin() + 4), (Bytes{0x02, 0x00, 0x90, 0x01}));
}

// A client that hears of the end first would take the last answer for one that nobody asked for.
TEST_F(NameService, WhatADeadServerHadSentIsDeliveredBeforeItsServiceIsRemoved)
{
    constexpr int MANY = 200;
    for (int round = 0; round < 20; round++) {
        Child server([] {
            ns_publish("service", "", join("server"), "");
            itc_msg *go = receive(GO);
            const uint32_t to = itc_sender(go);
            itc_free(&go);
            for (int i = 0; i < MANY; i++) {
                itc_msg *answer = itc_alloc(sizeof *answer, GO);
                itc_send(&answer, to, ITC_MY_MBOX);
            }
            (void)raise(SIGKILL);
            return 1;
        });
        Child client([] {
            ns_subscribe("service", "", join("client"));
            next(); // the response
            itc_msg *ind = receive(NS_SERVICE_ADDED_IND);
            const uint32_t mbox = reinterpret_cast<ns_service_ind *>(ind)->mbox;
            itc_free(&ind);
            itc_msg *go = itc_alloc(sizeof *go, GO);
            itc_send(&go, mbox, ITC_MY_MBOX);
            int answers = 0;
            uint32_t msgno = GO;
            for (; msgno == GO; answers++) {
                itc_msg *msg = receive_any();
                msgno = msg == nullptr ? 0 : msg->msgno;
                itc_free(&msg);
            }
            itc_exit();
            return msgno == NS_SERVICE_REMOVED_IND && answers == MANY + 1 ? 0 : 1;
        });
        ASSERT_EQ(client.finish(), 0) << "round " << round;
        EXPECT_EQ(server.finish(), 1000 + SIGKILL);
    }
}

TEST_F(NameService, AServiceWhoseMailboxIsDeletedIsRemoved)
{
    const uint32_t own = join("own");
    const uint32_t second = itc_create_mailbox("second", 0);
    ASSERT_EQ(ns_publish("service", "", second, ""), 0);
    ASSERT_EQ(ns_subscribe("service", "", own), 0);
    EXPECT_EQ(next(), response(1));
    EXPECT_EQ(next(), added(1, second, "service"));
    ASSERT_EQ(itc_delete_mailbox(second), 0);
    EXPECT_EQ(next(), removed(1, second, "service"));
}

TEST_F(NameService, ScopesKeepServicesApartAndTheEmptyScopeIsEveryScope)
{
    const uint32_t own = join("own");
    ASSERT_EQ(ns_publish("service", "tn", own, "in tn"), 0);
    ASSERT_EQ(ns_publish("service", "idl", own, "in idl"), 0);
    ASSERT_EQ(ns_publish("service", "", own, "everywhere"), 0);
    ASSERT_EQ(ns_publish("service2", "tn", own, "another"), 0);

    ASSERT_EQ(ns_subscribe("service", "tn", own), 0);
    EXPECT_EQ(next_now(), response(1));
    EXPECT_EQ(next_now(), added(1, own, "everywhere"));
    EXPECT_EQ(next_now(), added(1, own, "in tn"));
    EXPECT_EQ(next_now(), Bytes{});

    ASSERT_EQ(ns_subscribe("service", "", own), 0);
    EXPECT_EQ(next_now(), response(2));
    EXPECT_EQ(next_now(), added(2, own, "everywhere"));
    EXPECT_EQ(next_now(), added(2, own, "in idl"));
    EXPECT_EQ(next_now(), added(2, own, "in tn"));
    EXPECT_EQ(next_now(), Bytes{});
}

TEST_F(NameService, EverySubscriptionHasItsOwnNumberFromOne)
{
    const uint32_t own = join("own");
    ASSERT_EQ(ns_subscribe("service", "", own), 0);
    ASSERT_EQ(ns_subscribe("service", "", own), 0);
    EXPECT_EQ(next(), response(1));
    EXPECT_EQ(next(), response(2));
    ASSERT_EQ(ns_publish("service", "", own, ""), 0);
    EXPECT_EQ(next(), added(1, own, "service"));
    EXPECT_EQ(next(), added(2, own, "service"));
}

TEST_F(NameService, AfterUnsubscribeNothingMoreComes)
{
    const uint32_t own = join("own");
    ASSERT_EQ(ns_subscribe("service", "", own), 0);
    EXPECT_EQ(next(), response(1));
    ASSERT_EQ(ns_unsubscribe(1, own), 0);
    ASSERT_EQ(ns_publish("service", "", own, ""), 0);
    EXPECT_EQ(next_now(), Bytes{});
    EXPECT_EQ(ns_unsubscribe(1, own), ENOENT);
}

TEST_F(NameService, UnsubscribingAnothersSubscriptionIsRefused)
{
    const uint32_t own = join("own");
    const uint32_t second = itc_create_mailbox("second", 0);
    ASSERT_EQ(ns_subscribe("service", "", own), 0);
    EXPECT_EQ(ns_unsubscribe(1, second), ENOENT);
    EXPECT_EQ(ns_unsubscribe(1, 0x1234), EINVAL);
    EXPECT_EQ(ns_unsubscribe(2, own), ENOENT);
    EXPECT_EQ(ns_unsubscribe(1, own), 0);
}

TEST_F(NameService, PublishingAgainIsNothingForTheSameMailboxAndRefusedForAnother)
{
    const uint32_t own = join("own");
    const uint32_t second = itc_create_mailbox("second", 0);
    ASSERT_EQ(ns_subscribe("service", "", own), 0);
    ASSERT_EQ(ns_publish("service", "", own, ""), 0);
    EXPECT_EQ(ns_publish("service", "", own, ""), 0);
    EXPECT_EQ(ns_publish("service", "", second, ""), EEXIST);
    EXPECT_EQ(next(), response(1));
    EXPECT_EQ(next(), added(1, own, "service"));
    EXPECT_EQ(next_now(), Bytes{});
}

TEST_F(NameService, PublishingUnderAnotherPathTakesTheOldOneBack)
{
    const uint32_t own = join("own");
    ASSERT_EQ(ns_subscribe("service", "", own), 0);
    ASSERT_EQ(ns_publish("service", "", own, "one"), 0);
    ASSERT_EQ(ns_publish("service", "", own, "two"), 0);
    EXPECT_EQ(next(), response(1));
    EXPECT_EQ(next(), added(1, own, "one"));
    EXPECT_EQ(next(), removed(1, own, "one"));
    EXPECT_EQ(next(), added(1, own, "two"));
}

TEST_F(NameService, AServiceMayBePublishedAgainAfterItWasWithdrawn)
{
    const uint32_t own = join("own");
    for (int i = 0; i < 3; i++) {
        ASSERT_EQ(ns_publish("service", "", own, ""), 0);
        ASSERT_EQ(itc_add_name(own, "service"), 0);
        ASSERT_EQ(ns_unpublish("service", "", own, ""), 0);
    }
    EXPECT_EQ(ns_unpublish("service", "", own, ""), ENOENT);
}

TEST_F(NameService, UnpublishingWhatIsNotThereOrNotOursIsRefused)
{
    const uint32_t own = join("own");
    const uint32_t second = itc_create_mailbox("second", 0);
    ASSERT_EQ(ns_publish("service", "tn", own, ""), 0);
    EXPECT_EQ(ns_unpublish("service", "", own, ""), ENOENT);
    EXPECT_EQ(ns_unpublish("service", "tn", own, "another path"), ENOENT);
    EXPECT_EQ(ns_unpublish("service", "tn", second, ""), EACCES);
    EXPECT_EQ(ns_unpublish("service", "tn", own, "service"), 0);
}

TEST_F(NameService, WrongArgumentsAreRefused)
{
    const uint32_t own = join("own");
    const std::string too_long(256, 'x');
    EXPECT_EQ(ns_publish(nullptr, "", own, ""), EINVAL);
    EXPECT_EQ(ns_publish("", "", own, ""), EINVAL);
    EXPECT_EQ(ns_publish("service", nullptr, own, ""), EINVAL);
    EXPECT_EQ(ns_publish("service", "", own, nullptr), EINVAL);
    EXPECT_EQ(ns_publish(too_long.c_str(), "", own, ""), EINVAL);
    EXPECT_EQ(ns_publish("service", too_long.c_str(), own, ""), EINVAL);
    EXPECT_EQ(ns_publish("service", "", own, too_long.c_str()), EINVAL);
    EXPECT_EQ(ns_publish("service", "", own + 1, ""), EINVAL);
    EXPECT_EQ(ns_subscribe("", "", own), EINVAL);
    EXPECT_EQ(ns_subscribe("service", nullptr, own), EINVAL);
    EXPECT_EQ(ns_subscribe("service", "", own + 1), EINVAL);
    const std::string longest(255, 'x');
    EXPECT_EQ(ns_publish(longest.c_str(), longest.c_str(), own, longest.c_str()), 0);
}

TEST_F(NameService, NeedsItcInit) { EXPECT_EQ(ns_publish("service", "", 0x1000, ""), EINVAL); }

TEST_F(NameService, ADeletedMailboxIsNoSubscriberAnyMore)
{
    const uint32_t own = join("own");
    const uint32_t second = itc_create_mailbox("second", 0);
    ASSERT_EQ(ns_subscribe("service", "", second), 0);
    ASSERT_EQ(itc_delete_mailbox(second), 0);
    ASSERT_EQ(ns_publish("service", "", own, ""), 0);
    EXPECT_EQ(next_now(), Bytes{});
}

class ReservedName : public ItcTest
{
};

TEST_F(ReservedName, IsNotPublishedByAnotherUser)
{
    start_registry({"--allow-user", "nobody", "--reserve", "KAP_=root"});
    Child guest([] {
        if (setgid(65534) != 0 || setuid(65534) != 0) {
            return 97;
        }
        const uint32_t own = join("guest");
        const bool refused = ns_publish("KAP_IEMLI_SERVICE_NAME", "", own, "") == EACCES;
        const bool allowed = ns_publish("other", "", own, "") == 0;
        itc_exit();
        return refused && allowed ? 0 : 1;
    });
    EXPECT_EQ(guest.finish(), 0);
}

} // namespace
