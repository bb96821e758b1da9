// A socket to the kernel's netlink, in a network namespace: requests that are acknowledged, dumps, and news.
//
// It is opened inside the namespace by stepping into it and back, so the caller must be single-threaded then. It holds
// the namespace for as long as it is open. A socket that is subscribed to news is for news alone, since an answer would
// have to be looked for among them; requests and dumps go over another one.
#pragma once

#include "kernel_refusal.hpp"

#include <linux/netlink.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct mnl_socket;

namespace kap_node
{

class netlink_answer;

class netlink_socket
{
public:
    // Opened in the namespace of that name ("" the process's own); `groups` are numbers such as RTNLGRP_LINK. Throws
    // std::system_error.
    netlink_socket(int protocol, const std::string &name_space, std::span<const int> groups = {});
    ~netlink_socket();
    netlink_socket(netlink_socket &&) noexcept;
    netlink_socket &operator=(netlink_socket &&) noexcept;
    netlink_socket(const netlink_socket &) = delete;
    netlink_socket &operator=(const netlink_socket &) = delete;

    int fd() const;

    // Sends one request and waits for its acknowledgement. Flags and number of the message are filled in.
    std::optional<kernel_refusal> request(nlmsghdr *message);

    // Sends a dump request and hands over every message of the answer once all of it is there. An answer that the
    // kernel calls inconsistent, because something changed meanwhile, is asked for again.
    std::optional<kernel_refusal> dump(nlmsghdr *message, const std::function<void(const nlmsghdr *)> &each);

    // Hands over the news that are waiting (of a burst, as many as are a turn) without waiting. False when the kernel
    // has dropped some: the rest of what waits is then thrown away, since it is older than the loss, and everything has
    // to be read anew.
    bool read_news(const std::function<void(const nlmsghdr *)> &each);

private:
    struct closer {
        void operator()(mnl_socket *open) const;
    };

    std::optional<kernel_refusal> send(nlmsghdr *message, uint16_t flags);
    std::optional<kernel_refusal> receive_answer(netlink_answer &wanted);
    void throw_away_news();

    std::unique_ptr<mnl_socket, closer> socket_;
    std::vector<uint8_t> buffer_;
    uint32_t last_number_ = 0;
};

} // namespace kap_node
