// The flow manager's rules in the kernel (rule_kernel.hpp).
#include "kernel/rule_kernel.hpp"

namespace kap_node
{

kernel_rules::kernel_rules(const node_config &config)
{
    for (const port_config &port : config.ports) {
        auto &rules = name_spaces_[port.name_space];
        if (!rules) {
            rules = std::make_unique<rule_namespace>(port.name_space, report_);
        }
        rules->add_port(port.fmi_name, port.interface);
        by_port_[port.fmi_name] = rules.get();
    }
}

std::optional<kernel_refusal> kernel_rules::apply(const std::string &port, const port_rules &wanted)
{
    return by_port_.at(port)->apply(port, wanted);
}

json kernel_rules::show()
{
    json ports = json::object();
    for (const auto &[name, rules] : name_spaces_) {
        ports.update(rules->show());
    }
    return {{"mended", report_.mended},
            {"disturbed_by", report_.disturbed_by},
            {"interfaces_back", report_.interfaces_back},
            {"refusals", report_.refusals},
            {"last_refusal", report_.last_refusal},
            {"ports", std::move(ports)}};
}

void kernel_rules::watch(descriptor_hooks hooks)
{
    for (const auto &[name, rules] : name_spaces_) {
        rules->watch(hooks);
    }
}

void kernel_rules::settle(millis now)
{
    for (const auto &[name, rules] : name_spaces_) {
        rules->settle(now);
    }
}

size_t kernel_rules::remembered() const
{
    size_t all = 0;
    for (const auto &[name, rules] : name_spaces_) {
        all += rules->remembered();
    }
    return all;
}

} // namespace kap_node
