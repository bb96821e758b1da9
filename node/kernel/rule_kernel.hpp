// The flow manager's rules in the kernel: the ports by their network namespaces (rule_namespace.hpp).
#pragma once

#include "config.hpp"
#include "fmi_backend.hpp"
#include "kernel/rule_namespace.hpp"
#include "kernel_keeper.hpp"

#include <map>
#include <memory>
#include <string>

namespace kap_node
{

class kernel_rules : public rule_backend, public kernel_keeper
{
public:
    explicit kernel_rules(const node_config &config);

    std::optional<kernel_refusal> apply(const std::string &port, const port_rules &wanted) override;
    json show() override;

    void watch(descriptor_hooks hooks) override;
    // Throws when the packet filter of a namespace cannot be had, and waiting does not help.
    void settle(millis now) override;
    // How many numbers of rules and counts are remembered.
    size_t remembered() const;

private:
    rule_report report_;
    std::map<std::string, std::unique_ptr<rule_namespace>> name_spaces_;
    std::map<std::string, rule_namespace *> by_port_;
};

} // namespace kap_node
