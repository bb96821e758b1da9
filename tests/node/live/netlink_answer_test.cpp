// The kernel's answer, from its messages written out (little-endian machine).
#include "kernel/netlink_answer.hpp"

#include "message.hpp"

#include <gmock/gmock.h>
#include <libmnl/libmnl.h>

#include <cerrno>

namespace kap_node
{
namespace
{

using testing::ElementsAre;

constexpr auto ACKNOWLEDGEMENT = netlink_answer::kind::acknowledgement;
constexpr auto DUMP = netlink_answer::kind::dump;

// A message in a block of its own, so that a read past its end is found.
void take(netlink_answer &answer, const bytes &message)
{
    std::vector<uint32_t> block((message.size() + 3) / 4);
    memcpy(block.data(), message.data(), message.size());
    const auto *head = reinterpret_cast<const nlmsghdr *>(block.data());
    if (mnl_nlmsg_ok(head, static_cast<int>(message.size()))) {
        answer.take(head);
    }
}

// A message of a type, with flags and what follows its head.
bytes message_of(uint8_t type, uint16_t flags, const bytes &payload)
{
    const auto size = static_cast<uint8_t>(16 + payload.size());
    bytes message = {size, 0, 0, 0, type, 0, static_cast<uint8_t>(flags), static_cast<uint8_t>(flags >> 8)};
    message.resize(16);
    message.insert(message.end(), payload.begin(), payload.end());
    return message;
}

// An error (of errno 16, "busy"), the head of what was refused, and the kernel's words.
bytes refusal_in_words()
{
    bytes payload = {0xF0, 0xFF, 0xFF, 0xFF, 32, 0, 0, 0};
    payload.resize(20);
    const bytes words = {8, 0, 1, 0, 'n', 'o', '!', 0};
    payload.insert(payload.end(), words.begin(), words.end());
    return message_of(NLMSG_ERROR, NLM_F_CAPPED | NLM_F_ACK_TLVS, payload);
}

std::vector<int> types_of(const netlink_answer &answer)
{
    std::vector<int> types;
    answer.hand_over([&](const nlmsghdr *message) { types.push_back(message->nlmsg_type); });
    return types;
}

TEST(NetlinkAnswer, IsCompleteWithTheAcknowledgement)
{
    netlink_answer answer(ACKNOWLEDGEMENT);
    EXPECT_FALSE(answer.complete());
    take(answer, message_of(NLMSG_ERROR, NLM_F_CAPPED, bytes(20)));
    EXPECT_TRUE(answer.complete());
    EXPECT_FALSE(answer.refused());
}

TEST(NetlinkAnswer, GivesTheKernelsWordsAndElseWhatTheErrnoMeans)
{
    netlink_answer in_words(ACKNOWLEDGEMENT);
    take(in_words, refusal_in_words());
    ASSERT_TRUE(in_words.refused());
    EXPECT_EQ(in_words.refused()->error, EBUSY);
    EXPECT_EQ(in_words.refused()->words, "no!");

    bytes without = refusal_in_words();
    without[7] = 1; // only NLM_F_CAPPED
    netlink_answer wordless(ACKNOWLEDGEMENT);
    take(wordless, without);
    EXPECT_EQ(wordless.refused()->words, strerror(EBUSY));
}

TEST(NetlinkAnswer, FindsTheWordsBehindAMessageThatIsRepeatedWhole)
{
    bytes payload = {0xF0, 0xFF, 0xFF, 0xFF, 18, 0, 0, 0};
    payload.resize(24); // the head of what was refused, two bytes of it and two that fill up
    const bytes words = {8, 0, 1, 0, 'n', 'o', '!', 0};
    payload.insert(payload.end(), words.begin(), words.end());
    netlink_answer answer(ACKNOWLEDGEMENT);
    take(answer, message_of(NLMSG_ERROR, NLM_F_ACK_TLVS, payload));
    EXPECT_EQ(answer.refused()->words, "no!");
}

TEST(NetlinkAnswer, IsNeverReadPastItsEndWhereverItIsBent)
{
    const bytes good = refusal_in_words();
    for (size_t at = 0; at < good.size(); ++at) {
        for (const uint8_t value : bytes{0x00, 0x01, 0x7F, 0xFF}) {
            bytes bent = good;
            bent[at] = value;
            netlink_answer answer(DUMP);
            take(answer, bent);
            EXPECT_LE(types_of(answer).size(), 1u);
        }
    }
}

TEST(NetlinkAnswer, HandsOverTheMessagesOfADumpInTheirOrder)
{
    netlink_answer answer(DUMP);
    take(answer, message_of(0x10, NLM_F_MULTI, bytes(5)));
    take(answer, message_of(0x14, NLM_F_MULTI, bytes(3)));
    EXPECT_FALSE(answer.complete());
    take(answer, message_of(NLMSG_DONE, NLM_F_MULTI, bytes(4)));
    EXPECT_TRUE(answer.complete());
    EXPECT_FALSE(answer.inconsistent());
    EXPECT_FALSE(answer.refused());
    take(answer, message_of(0x15, NLM_F_MULTI, {})); // of something else
    EXPECT_THAT(types_of(answer), ElementsAre(0x10, 0x14));
}

TEST(NetlinkAnswer, SaysThatADumpIsInconsistentOrFailedOnItsWay)
{
    netlink_answer broken(DUMP);
    take(broken, message_of(0x10, NLM_F_MULTI | NLM_F_DUMP_INTR, {}));
    take(broken, message_of(NLMSG_DONE, NLM_F_MULTI, bytes(4)));
    EXPECT_TRUE(broken.inconsistent());

    netlink_answer failed(DUMP);
    take(failed, message_of(NLMSG_DONE, NLM_F_MULTI, {0xF0, 0xFF, 0xFF, 0xFF}));
    ASSERT_TRUE(failed.refused());
    EXPECT_EQ(failed.refused()->error, EBUSY);
}

} // namespace
} // namespace kap_node
