// The far end as a service: one engine (far_end.hpp) per namespace of its configuration, and the commands that set its
// knobs. A namespace that is not there yet is looked for again; one that was deleted is let go of.
//
//   "far_end": [{"namespace": "far", "interfaces": ["idl_a1", "tn_a"]}]
#pragma once

#include "config.hpp"
#include "far_end.hpp"
#include "kernel_keeper.hpp"
#include "name_space.hpp"
#include "program.hpp"

#include <memory>

namespace kap_node
{

inline constexpr const char *FAR_END_MAILBOX = "kap-node-far-end";

class far_end_program : public program
{
public:
    // Throws config_error.
    far_end_program(const node_config &config, descriptor_hooks hooks);
    ~far_end_program() override;

    // Opens and closes engines as their namespaces come and go; called at the start and from time to time.
    void check_name_spaces();

    void receive(mailbox sender, std::span<const uint8_t> data, millis now) override;
    void client_gone(mailbox /*address*/) override {}
    void tick(millis /*now*/) override {}
    std::optional<millis> next_deadline() const override { return std::nullopt; }
    json control(const arguments &words) override;
    bool dying() const override { return dying_; }

private:
    struct place {
        std::string name_space;
        std::vector<std::string> interfaces;
        far_end *engine = nullptr;
        namespace_identity identity;
        std::string problem; // why there is no engine
    };

    void open(place &where);
    void close(place &where);
    bool set_knob(const arguments &words);
    json show();

    descriptor_hooks hooks_;
    std::vector<place> places_;
    far_end_knobs knobs_;
    uint64_t unknown_number_ = 0;
    bool dying_ = false;
};

} // namespace kap_node
