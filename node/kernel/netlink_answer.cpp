// The kernel's answer (netlink_answer.hpp).
#include "kernel/netlink_answer.hpp"

#include "kernel/attributes.hpp"

#include <cerrno>
#include <cstring>

namespace kap_node
{

namespace
{

kernel_refusal refusal(int error) { return {error, strerror(error)}; }

// The kernel's words stand behind the message that it refuses, of which it may repeat the head only.
std::string words_of(const nlmsghdr *message, const nlmsgerr &refused)
{
    if ((message->nlmsg_flags & NLM_F_ACK_TLVS) == 0) {
        return "";
    }
    const bool repeated = (message->nlmsg_flags & NLM_F_CAPPED) == 0 && refused.msg.nlmsg_len >= sizeof(nlmsghdr);
    const size_t before = sizeof(nlmsgerr) + (repeated ? MNL_ALIGN(refused.msg.nlmsg_len - sizeof(nlmsghdr)) : 0);
    std::string words;
    if (before <= mnl_nlmsg_get_payload_len(message)) {
        each_attribute(message, before, [&](const nlattr *attribute) {
            words = mnl_attr_get_type(attribute) == NLMSGERR_ATTR_MSG ? text_in(attribute) : words;
        });
    }
    return words;
}

// An acknowledgement is an error message without an error.
std::optional<kernel_refusal> read_verdict(const nlmsghdr *message)
{
    nlmsgerr verdict;
    if (mnl_nlmsg_get_payload_len(message) < sizeof verdict) {
        return refusal(EBADMSG);
    }
    memcpy(&verdict, mnl_nlmsg_get_payload(message), sizeof verdict);
    if (verdict.error == 0) {
        return std::nullopt;
    }
    kernel_refusal said = refusal(-verdict.error);
    const std::string words = words_of(message, verdict);
    said.words = words.empty() ? said.words : words;
    return said;
}

// A dump that failed on its way has the error in its last message.
std::optional<kernel_refusal> read_end(const nlmsghdr *message)
{
    int error = 0;
    if (mnl_nlmsg_get_payload_len(message) >= sizeof error) {
        memcpy(&error, mnl_nlmsg_get_payload(message), sizeof error);
    }
    return error < 0 ? std::optional(refusal(-error)) : std::nullopt;
}

} // namespace

void netlink_answer::take(const nlmsghdr *message)
{
    if (complete_) {
        return;
    }
    inconsistent_ = inconsistent_ || (message->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
    if (message->nlmsg_type == NLMSG_ERROR) {
        refused_ = read_verdict(message);
        complete_ = true;
    } else if (message->nlmsg_type == NLMSG_DONE) {
        refused_ = read_end(message);
        complete_ = true;
    } else if (wanted_ == kind::dump && message->nlmsg_type >= NLMSG_MIN_TYPE) {
        const auto *first = reinterpret_cast<const uint8_t *>(message);
        messages_.insert(messages_.end(), first, first + message->nlmsg_len);
        messages_.resize(MNL_ALIGN(messages_.size()));
    }
}

void netlink_answer::hand_over(const std::function<void(const nlmsghdr *)> &each) const
{
    const auto *message = reinterpret_cast<const nlmsghdr *>(messages_.data());
    int left = static_cast<int>(messages_.size());
    for (; mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left)) {
        each(message);
    }
}

} // namespace kap_node
