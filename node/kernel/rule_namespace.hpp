// The rules of the ports of one network namespace, kept in the kernel's packet filter as they were asked for.
//
// A change is one transaction. After each of its own the kernel's table has a known generation: when it has another
// one, somebody else has changed something, and the table is compared with what has to be there. What differs is made
// anew in one transaction, so that no port is open in between; counters go on from where they were.
//
// An interface that is not there lets nothing in: rules for its port are kept and made when it comes.
//
// Where the kernel refuses a transaction, each port has one of its own: what stands in the way of one port's rules does
// not keep the others from theirs.
//
// What an earlier run has left stays in force for LEFTOVERS_KEPT_MS. A port that it left closed stays closed after
// that, until somebody sets its default action, or has asked for something else of it LEFTOVERS_KEPT_MS ago.
#pragma once

#include "config.hpp"
#include "fmi_backend.hpp"
#include "kernel/netlink_socket.hpp"
#include "kernel/nft_context.hpp"
#include "kernel/rule_layout.hpp"
#include "kernel_keeper.hpp"
#include "name_space.hpp"

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kap_node
{

// What has happened beside what was asked.
struct rule_report {
    uint64_t mended = 0;
    std::map<std::string, uint64_t> disturbed_by; // programs that changed the packet filter before something was mended
    uint64_t interfaces_back = 0;
    uint64_t refusals = 0;
    std::string last_refusal;
};

class rule_namespace
{
public:
    rule_namespace(std::string name, rule_report &report);
    ~rule_namespace();
    rule_namespace(const rule_namespace &) = delete;
    rule_namespace &operator=(const rule_namespace &) = delete;

    void add_port(const std::string &port, const std::string &interface);
    void watch(const descriptor_hooks &hooks);
    // Throws what open_and_inherit is refused for good.
    void settle(millis now);
    size_t remembered() const;
    std::optional<kernel_refusal> apply(const std::string &port, const port_rules &wanted);
    // The counters of each port, by its name.
    json show();

private:
    struct kept_port {
        port_layout layout;
        bool wanted_once = false;              // rules were asked for
        bool asked = false;                    // they were, or those of an earlier run are in force
        bool expected = false;                 // has been made under its numbers
        int index = 0;                         // of the interface for which it was
        bool had_interface = false;            // at any time
        std::optional<kernel_refusal> refused; // why its rules could not be made
        std::optional<millis> opens_at;        // though no default action was set
    };
    // What is open in the namespace.
    struct kernel_side {
        explicit kernel_side(const std::string &name_space);
        nft_context filter;
        netlink_socket questions;
        netlink_socket filter_news;
        netlink_socket link_news;
    };

    std::optional<kernel_refusal> open_and_inherit();
    std::optional<kernel_refusal> open_kernel();
    void watch_kernel();
    void close_kernel();
    std::optional<kernel_refusal> inherit();
    void end_inheritance();
    void open_late_ports();

    void read_news();
    bool interfaces_differ();
    std::optional<uint32_t> generation();
    std::optional<kernel_refusal> read_table(table_picture &picture);
    std::optional<kernel_refusal> read_devices(table_picture &picture);

    std::optional<kernel_refusal> run(const json &commands);
    void number_missing(port_layout &layout);
    void number_anew(port_layout &layout);
    void forget_gone(port_layout &layout);
    std::vector<std::string> own_counters() const;
    void forget_counts(const std::vector<std::string> &names);
    std::set<std::string> expected_names() const;
    bool has_strangers(const table_picture &picture) const;
    std::optional<kernel_refusal> make_anew(const table_picture &picture, const std::vector<kept_port *> &anew);
    bool is_asleep();
    std::optional<kernel_refusal> wake();
    std::optional<kernel_refusal> make_each(const table_picture &picture, const std::vector<kept_port *> &anew);
    void note_made(kept_port &port, const std::optional<kernel_refusal> &refused);
    std::optional<kernel_refusal> make_port_anew(kept_port &port);
    std::optional<kernel_refusal> replace_table();

    void mend();
    bool mend_once();
    std::vector<kept_port *> wrong_ports(const table_picture &picture);
    void give_up_lost(const table_picture &picture);
    void note_interfaces();
    void note_interface(kept_port &port, int index);
    void tell_mended(const std::vector<kept_port *> &wrong, uint32_t generation);
    void count_disturbance(uint32_t generation);
    void count_refusal(const kernel_refusal &refusal);
    void note_refusal(const kernel_refusal &refusal);

    std::string name_;
    rule_report &report_;
    descriptor_hooks hooks_;
    std::map<std::string, kept_port> ports_;
    std::unique_ptr<kernel_side> kernel_;
    namespace_identity identity_;
    uint32_t last_number_ = 0;
    std::optional<uint32_t> known_generation_; // of which everything was in order
    bool compare_ = true;                      // whatever the generation is
    millis now_ = 0;                           // when it was settled last
    std::optional<millis> inherited_at_;       // when it was looked for what an earlier run has left
    bool inheriting_ = false;                  // and that is in force
    bool tidying_ = false;                     // what nobody expects any more is no disturbance
    std::string refusal_told_;
    std::set<std::string> disturbers_;
    std::optional<uint32_t> unnamed_generation_; // of a change that was mended before the kernel had told whose it was
    std::map<std::string, frame_count> counted_; // as last read
};

} // namespace kap_node
