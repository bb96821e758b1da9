// The attributes of a netlink message, or within one, handed over one by one; none is read past its end.
#pragma once

#include <libmnl/libmnl.h>

#include <cstring>
#include <optional>
#include <string>

namespace kap_node
{

// Those behind the first `before` bytes of the message's payload.
template <class Visit> void each_attribute(const nlmsghdr *message, size_t before, Visit visit)
{
    const auto *at = static_cast<const nlattr *>(mnl_nlmsg_get_payload_offset(message, before));
    const auto *end = static_cast<const char *>(mnl_nlmsg_get_payload_tail(message));
    for (; mnl_attr_ok(at, static_cast<int>(end - reinterpret_cast<const char *>(at))); at = mnl_attr_next(at)) {
        visit(at);
    }
}

// Those within an attribute.
template <class Visit> void each_attribute_in(const nlattr *nest, Visit visit)
{
    const auto *at = static_cast<const nlattr *>(mnl_attr_get_payload(nest));
    const auto *end = static_cast<const char *>(mnl_attr_get_payload(nest)) + mnl_attr_get_payload_len(nest);
    for (; mnl_attr_ok(at, static_cast<int>(end - reinterpret_cast<const char *>(at))); at = mnl_attr_next(at)) {
        visit(at);
    }
}

// The number that an attribute is, when it is as long as one.
template <class Number> std::optional<Number> number_in(const nlattr *attribute)
{
    Number number{};
    if (mnl_attr_get_payload_len(attribute) != sizeof number) {
        return std::nullopt;
    }
    memcpy(&number, mnl_attr_get_payload(attribute), sizeof number);
    return number;
}

// The text that an attribute is, up to its zero byte or its end.
inline std::string text_in(const nlattr *attribute)
{
    const auto *first = static_cast<const char *>(mnl_attr_get_payload(attribute));
    return {first, strnlen(first, mnl_attr_get_payload_len(attribute))};
}

} // namespace kap_node
