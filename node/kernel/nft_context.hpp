// The kernel's packet filter in a network namespace, through libnftables: commands as JSON, each batch one transaction.
#pragma once

#include "kernel_refusal.hpp"

#include <nlohmann/json.hpp>

#include <memory>
#include <optional>
#include <string>

struct nft_ctx;

namespace kap_node
{

using json = nlohmann::json;

class nft_context
{
public:
    // Opened in the namespace of that name by stepping into it and back. Throws std::system_error.
    explicit nft_context(const std::string &name_space);

    // Carries out an array of commands: all of them or none.
    std::optional<kernel_refusal> run(const json &commands);
    // Carries out one command that lists, and hands over what it found.
    std::optional<kernel_refusal> list(const json &command, json &found);
    // Gives back the memory that what was done since the last call has taken for a while.
    void rest();

private:
    struct closer {
        void operator()(nft_ctx *open) const;
    };

    std::unique_ptr<nft_ctx, closer> context_;
    bool used_ = true;
};

} // namespace kap_node
