// The kernel's answer to a request or a dump, put together from its messages.
#pragma once

#include "kernel/netlink_socket.hpp"

namespace kap_node
{

class netlink_answer
{
public:
    enum class kind {
        acknowledgement,
        dump
    };
    explicit netlink_answer(kind wanted) : wanted_(wanted) {}

    // A message of the answer, in the order in which they come; what comes after its end is passed over.
    void take(const nlmsghdr *message);

    bool complete() const { return complete_; }
    // Something changed while the kernel went through what was asked for: some of it may be missing, or there twice.
    bool inconsistent() const { return inconsistent_; }
    const std::optional<kernel_refusal> &refused() const { return refused_; }
    // The messages of a dump.
    void hand_over(const std::function<void(const nlmsghdr *)> &each) const;

private:
    kind wanted_;
    bool complete_ = false;
    bool inconsistent_ = false;
    std::optional<kernel_refusal> refused_;
    std::vector<uint8_t> messages_; // each where netlink aligns it
};

} // namespace kap_node
