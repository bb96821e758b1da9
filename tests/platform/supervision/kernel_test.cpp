// What the packet socket relies on in the kernel, and what the platform's design rests on. If one of these fails, a
// kernel behaves differently and the library must be looked at.
#include "ecpri.hpp"
#include "guests.hpp"
#include "network.hpp"
#include "packet_socket.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include <linux/capability.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace
{

using net::Inside;
using net::NetworkTest;
using net::run;
using net::wait_for;
using Bytes = std::vector<uint8_t>;

constexpr packet::filter REQUESTS{ecpri::ACTION_REQUEST, {0xAEFE}, 1};

class Kernel : public NetworkTest
{
protected:
    void SetUp() override
    {
        NetworkTest::SetUp();
        lay_cable();
        near_ = packet::open_socket(REQUESTS);
        const Inside far("far");
        far_ = packet::open_socket(REQUESTS);
        ASSERT_TRUE(near_ >= 0 && far_ >= 0 && packet::batch_init(&batch_, 64));
    }

    void TearDown() override
    {
        packet::batch_free(&batch_);
        close(near_);
        close(far_);
        NetworkTest::TearDown();
    }

    static Bytes frame(bool tagged, uint16_t ether_type = 0xAEFE, size_t size = 64, uint8_t action = 0)
    {
        const ecpri::vlan_tag tag{to_be16(0x8100), to_be16(0xE064)};
        ecpri::measurement m{};
        m.destination = net::FAR_MAC;
        m.source = net::NEAR_MAC;
        m.ether_type = ether_type;
        m.action = action;
        Bytes bytes(size + (tagged ? 4 : 0));
        ecpri::put_measurement(bytes.data(), m, size, tagged ? &tag : nullptr);
        return bytes;
    }

    [[nodiscard]] int send(const Bytes &f) const
    {
        return packet::send_frame(near_, packet::interface_index(near_, "near0"), f.data(), f.size());
    }

    // The next frame at the far side; waits for it.
    packet::received next()
    {
        pollfd p{far_, POLLIN, 0};
        EXPECT_EQ(poll(&p, 1, 5000), 1);
        EXPECT_EQ(packet::receive(far_, &batch_), 1u);
        return batch_.frames[0];
    }

    int near_ = -1;
    int far_ = -1;
    packet::batch batch_{};
};

int64_t real_now()
{
    timespec t{};
    clock_gettime(CLOCK_REALTIME, &t);
    return static_cast<int64_t>(t.tv_sec) * 1'000'000'000 + t.tv_nsec;
}

TEST_F(Kernel, TakesTheTagOffAFrameAndTellsIt)
{
    ASSERT_EQ(send(frame(true)), 0);
    const packet::received r = next();
    EXPECT_TRUE(r.tagged);
    EXPECT_EQ(r.tpid, 0x8100);
    EXPECT_EQ(r.tci, 0xE064);
    EXPECT_EQ(r.length, 64u);
    EXPECT_EQ(Bytes(r.bytes + 12, r.bytes + 16), (Bytes{0xAE, 0xFE, 0x10, 0x05}));
}

TEST_F(Kernel, TellsAFrameWithoutTag)
{
    ASSERT_EQ(send(frame(false)), 0);
    const packet::received r = next();
    EXPECT_FALSE(r.tagged);
    EXPECT_EQ(r.length, 64u);
}

// Once it has begun to: that takes a moment after the first socket on the machine has asked for stamps. Until then a
// frame is stamped when it is read.
TEST_F(Kernel, StampsAFrameWhenItArrivesAndNotWhenItIsRead)
{
    EXPECT_TRUE(wait_for([&] {
        const int64_t before = real_now();
        EXPECT_EQ(send(frame(true)), 0);
        pollfd p{far_, POLLIN, 0};
        EXPECT_EQ(poll(&p, 1, 5000), 1);
        const int64_t arrived = real_now();
        while (real_now() < arrived + 20'000'000) {
        }
        const packet::received r = next();
        EXPECT_GE(r.stamp, before);
        return r.stamp <= arrived;
    }));
}

TEST_F(Kernel, LetsOnlyWantedMeasurementsThroughTheFilter)
{
    Bytes other_type = frame(true);
    other_type[19] = 2;
    Bytes other_revision = frame(true);
    other_revision[18] = 0x20;
    ASSERT_EQ(send(frame(true, 0x0806)), 0);
    ASSERT_EQ(send(frame(true, 0xAEFE, 64, ecpri::ACTION_RESPONSE)), 0);
    ASSERT_EQ(send(other_type), 0);
    ASSERT_EQ(send(other_revision), 0);
    ASSERT_EQ(send(frame(true, 0xAEFE, 100)), 0);
    EXPECT_EQ(next().length, 100u);
    EXPECT_EQ(packet::receive(far_, &batch_), 0u);
}

TEST_F(Kernel, FilterTakesAsManyEtherTypesAsItPromises)
{
    packet::filter many{ecpri::ACTION_REQUEST, {}, packet::MAX_ETHER_TYPES};
    for (size_t i = 0; i < many.count; i++) {
        many.ether_types[i] = static_cast<uint16_t>(0x9000 + i);
    }
    ASSERT_TRUE(packet::set_filter(far_, many));
    for (size_t i = 0; i < many.count; i++) {
        ASSERT_EQ(send(frame(true, many.ether_types[i], 64 + i)), 0);
        EXPECT_EQ(next().length, 64 + i);
    }
    ASSERT_EQ(send(frame(true, 0x9010)), 0);
    ASSERT_EQ(send(frame(true, 0x9000, 200)), 0);
    EXPECT_EQ(next().length, 200u);
}

TEST_F(Kernel, DoesNotHandASocketItsOwnFrames)
{
    ASSERT_EQ(send(frame(true)), 0);
    next();
    EXPECT_EQ(packet::receive(near_, &batch_), 0u);
}

TEST_F(Kernel, TellsTheLengthOfAFrameThatIsLongerThanWhatIsKept)
{
    ASSERT_EQ(send(frame(true, 0xAEFE, 1500)), 0);
    const packet::received r = next();
    EXPECT_EQ(r.length, 1500u);
    EXPECT_EQ(r.available, 64u);
}

TEST_F(Kernel, TakesATaggedFrameOfTheWholeMtu)
{
    EXPECT_EQ(send(frame(true, 0xAEFE, 1514)), 0);
    EXPECT_EQ(next().length, 1514u);
    EXPECT_EQ(send(frame(true, 0xAEFE, 1515)), EMSGSIZE);
}

TEST_F(Kernel, SaysNetworkDownWhileAnInterfaceIsDownAndSendsAgainAfterwards)
{
    run("ip link set near0 down");
    EXPECT_EQ(send(frame(true)), ENETDOWN);
    run("ip link set near0 up");
    ASSERT_TRUE(wait_for([&] { return send(frame(true)) == 0; }));
    EXPECT_EQ(next().length, 64u);
}

// Newer kernels refuse the frame, Debian 12's takes it and drops it. What counts is that neither says that there is no
// such interface: then it would be looked for.
TEST_F(Kernel, TakesAFrameOrSaysNoBufferSpaceWhenTheCableIsOut)
{
    run("ip -n far link set far0 down");
    ASSERT_TRUE(wait_for([] { return run("ip link show near0").find("NO-CARRIER") != std::string::npos; }));
    const int result = send(frame(true));
    EXPECT_TRUE(result == 0 || result == ENOBUFS) << result;
}

TEST_F(Kernel, SaysNoSuchDeviceForTheIndexOfADeletedInterfaceAndGivesItsNameAnother)
{
    const int old_index = packet::interface_index(near_, "near0");
    run("ip link del near0");
    const Bytes f = frame(true);
    EXPECT_EQ(packet::send_frame(near_, old_index, f.data(), f.size()), ENXIO);
    EXPECT_EQ(packet::interface_index(near_, "near0"), 0);
    run("ip link add near0 type veth peer name far0 netns far");
    EXPECT_NE(packet::interface_index(near_, "near0"), old_index);
    EXPECT_NE(packet::interface_index(near_, "near0"), 0);
}

TEST_F(Kernel, AnswersQuestionsForTheNamespaceOfTheSocketFromAnyOther)
{
    EXPECT_EQ(packet::interface_index(far_, "near0"), 0);
    const int index = packet::interface_index(far_, "far0");
    EXPECT_NE(index, 0);
    char name[16];
    ASSERT_TRUE(packet::interface_name(far_, index, name));
    EXPECT_STREQ(name, "far0");
    mac_address mac{};
    ASSERT_TRUE(packet::interface_mac(far_, "far0", &mac));
    EXPECT_TRUE(mac_equal(mac, net::FAR_MAC));
    EXPECT_EQ(packet::interface_mtu(far_, "far0"), 1500);
    EXPECT_EQ(packet::interface_vlan(far_, "far0"), -1);
}

// The calling thread without a capability while it lives.
class Without
{
public:
    explicit Without(int capability)
    {
        EXPECT_EQ(syscall(SYS_capget, &header_, before_), 0);
        __user_cap_data_struct now[_LINUX_CAPABILITY_U32S_3] = {before_[0], before_[1]};
        now[CAP_TO_INDEX(capability)].effective &= ~CAP_TO_MASK(capability);
        EXPECT_EQ(syscall(SYS_capset, &header_, now), 0);
    }
    ~Without() { EXPECT_EQ(syscall(SYS_capset, &header_, before_), 0); }
    Without(const Without &) = delete;
    Without &operator=(const Without &) = delete;

private:
    __user_cap_header_struct header_{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct before_[_LINUX_CAPABILITY_U32S_3]{};
};

int buffer_of(int fd)
{
    int size = 0;
    socklen_t length = sizeof size;
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, &length), 0);
    return size;
}

// What the kernel allows anybody is what a socket gets that asks for more than any.
TEST_F(Kernel, ASocketsBufferIsTheLargestAllowedWhereItCannotBeForced)
{
    EXPECT_EQ(buffer_of(near_), 2 * 8 * 1024 * 1024) << "forced, and the kernel doubles it for its own";
    const Without force(CAP_NET_ADMIN);
    const int bounded = packet::open_socket(REQUESTS);
    const int asking = socket(AF_UNIX, SOCK_DGRAM, 0);
    const int too_much = 1 << 30;
    ASSERT_EQ(setsockopt(asking, SOL_SOCKET, SO_RCVBUF, &too_much, sizeof too_much), 0);
    EXPECT_EQ(buffer_of(bounded), std::min(buffer_of(asking), 2 * 8 * 1024 * 1024));
    close(bounded);
    close(asking);
}

// A card that filters addresses is told of those that are not its own, and no longer than they are wanted.
TEST_F(Kernel, LetsAnAddressInUntilItIsShutOut)
{
    const mac_address foreign{{0x02, 0, 0, 0, 0x77, 0x01}};
    const int index = packet::interface_index(near_, "near0");
    const auto filtered = [] {
        return run("bridge fdb show dev near0").find("02:00:00:00:77:01") != std::string::npos;
    };
    EXPECT_FALSE(filtered());
    EXPECT_TRUE(packet::let_in(near_, index, foreign));
    EXPECT_TRUE(filtered());
    packet::shut_out(near_, index, foreign);
    EXPECT_FALSE(filtered());
    EXPECT_FALSE(packet::let_in(near_, index + 1000, foreign)) << "there is no such interface";
}

// Of more addresses than a few dozen the card is not told one by one: the kernel walks all it has for each one more.
TEST_F(Kernel, LetsEverythingInWhenThereAreManyAddresses)
{
    using supervision::guest;
    constexpr unsigned MANY = 300;
    supervision::guests all;
    const int index = packet::interface_index(near_, "near0");
    const auto number = [&](unsigned i) {
        return guest{index, {{0x02, 0, 0, 0x77, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)}}};
    };
    const auto lines = [](const std::string &text, const char *with) {
        size_t count = 0;
        for (size_t at = text.find(with); at != std::string::npos; at = text.find(with, at + 1)) {
            count++;
        }
        return count;
    };
    const auto singles = [&] { return lines(run("bridge fdb show dev near0"), "02:00:00:77:"); };
    // How often the card was asked to take everything in. A kind of card that cannot filter is asked by the kernel
    // itself when there is any address.
    const auto asked_for_all = [] {
        const std::string text = run("ip -d link show near0");
        const std::string word = "promiscuity ";
        return std::stoi(text.substr(text.find(word) + word.size()));
    };
    const int at_first = asked_for_all();
    int before = 0;
    for (unsigned i = 0; i < MANY; i++) {
        ASSERT_TRUE(supervision::guest_let_in(all, near_, number(i))) << i;
        if (i == supervision::MOST_SINGLE_ADDRESSES - 1) {
            before = asked_for_all();
        }
    }
    EXPECT_EQ(asked_for_all(), before + 1);
    EXPECT_EQ(singles(), supervision::MOST_SINGLE_ADDRESSES);
    EXPECT_TRUE(supervision::guest_let_in(all, near_, number(0))) << "a second session from the same address";
    supervision::guest_shut_out(all, near_, number(0));
    EXPECT_EQ(singles(), supervision::MOST_SINGLE_ADDRESSES) << "one session still has it";
    for (unsigned i = 0; i < MANY; i++) {
        supervision::guest_shut_out(all, near_, number(i));
    }
    EXPECT_EQ(singles(), 0u);
    EXPECT_EQ(asked_for_all(), at_first);
    EXPECT_TRUE(all.places.empty() && all.interfaces.empty()) << "nothing is remembered";
    EXPECT_FALSE(supervision::guest_let_in(all, near_, {index + 1000, {}})) << "there is no such interface";
    EXPECT_TRUE(all.places.empty() && all.interfaces.empty());
}

} // namespace
