// What the tests of the services share: an outlet that records, and messages written out as bytes.
#pragma once

#include "config.hpp"
#include "service.hpp"

#include <gtest/gtest.h>

#include <cctype>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kap_node
{

// The bytes of a text such as "00 00 00 C8 'IDLA1' 0*11": hexadecimal bytes, characters in quotes, and 0*N for N zero
// bytes. The message number stands in front, in host byte order.
inline bytes message_of(uint32_t number, const std::string &rest)
{
    bytes data(4);
    memcpy(data.data(), &number, 4);
    for (size_t i = 0; i < rest.size();) {
        if (isspace(static_cast<unsigned char>(rest[i])) != 0) {
            ++i;
        } else if (rest[i] == '\'') {
            const size_t end = rest.find('\'', i + 1);
            data.insert(data.end(), rest.begin() + static_cast<long>(i) + 1, rest.begin() + static_cast<long>(end));
            i = end + 1;
        } else if (rest.compare(i, 2, "0*") == 0) {
            size_t used = 0;
            data.resize(data.size() + std::stoul(rest.substr(i + 2), &used));
            i += 2 + used;
        } else {
            data.push_back(static_cast<uint8_t>(std::stoul(rest.substr(i, 2), nullptr, 16)));
            i += 2;
        }
    }
    return data;
}

struct sent_message {
    mailbox to;
    bytes data;
    bool operator==(const sent_message &) const = default;
};

inline void PrintTo(const sent_message &sent, std::ostream *out)
{
    *out << "to " << sent.to << ": " << hex_text(sent.data);
}

class recording_outlet : public outlet
{
public:
    void send(mailbox to, bytes message) override { sent.push_back({to, std::move(message)}); }
    void watch(mailbox client) override { watched.push_back(client); }
    std::optional<mailbox> locate(const std::string &name) override
    {
        const auto found = names.find(name);
        return found == names.end() ? std::nullopt : std::optional(found->second);
    }

    // What was sent since the last call.
    std::vector<sent_message> take() { return std::exchange(sent, {}); }

    std::vector<sent_message> sent;
    std::vector<mailbox> watched;
    std::map<std::string, mailbox> names;
};

inline constexpr mailbox CLIENT = 77;
inline constexpr mailbox OTHER_CLIENT = 78;

inline node_config two_port_config()
{
    node_config config;
    port_config idl;
    idl.people_name = "IDL_A1";
    idl.name = "IDLA1";
    idl.fmi_name = "DiPort_A1";
    idl.interface = "idl_a1";
    idl.name_space = idl.reported_name_space = "near";
    idl.unlocked = true;
    port_config tn;
    tn.people_name = "TN_A";
    tn.name = tn.fmi_name = "TNA";
    tn.interface = "tn_a";
    tn.name_space = tn.reported_name_space = "near";
    tn.unlocked = true;
    tn.vlan_interfaces = true;
    config.ports = {idl, tn};
    return config;
}

// A fixture around one service, which is made from two_port_config.
template <class Service> class ServiceTest : public ::testing::Test
{
protected:
    void receive(const bytes &message, mailbox sender = CLIENT) { tested->receive(sender, message, now); }

    void expect_answer(const bytes &expected, mailbox to = CLIENT)
    {
        EXPECT_EQ(out.take(), (std::vector<sent_message>{{to, expected}}));
    }

    // Every prefix of a good request that is shorter than `enough` is answered with this reject and this reason; what
    // `kept` gives does not change. The copies are on the heap, so that a read past the end is found.
    template <class Kept>
    void expect_truncations_refused(const bytes &good, size_t enough, uint32_t reject, uint32_t reason, Kept kept)
    {
        const json before = kept();
        for (size_t size = 4; size < enough; ++size) {
            SCOPED_TRACE("cut to " + std::to_string(size));
            receive(bytes(good.begin(), good.begin() + static_cast<long>(size)));
            const auto answers = out.take();
            ASSERT_EQ(answers.size(), 1u);
            const message_view answer(answers[0].data);
            EXPECT_EQ(answer.number(), reject);
            EXPECT_EQ(answer.word(12), reason);
        }
        EXPECT_EQ(kept(), before);
    }

    recording_outlet out;
    node_config config = two_port_config();
    std::unique_ptr<Service> tested;
    millis now = 1000;
};

} // namespace kap_node
