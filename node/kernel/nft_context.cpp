// The kernel's packet filter in a network namespace (nft_context.hpp).
#include "kernel/nft_context.hpp"

#include "kernel/netlink_socket.hpp"
#include "name_space.hpp"

#include <malloc.h>
#include <nftables/libnftables.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace kap_node
{

namespace
{

// The library says only in words why the kernel refused.
int error_of(const std::string &words)
{
    for (const int error :
         {EPERM, ENOENT, EEXIST, EOPNOTSUPP, EPROTONOSUPPORT, EBUSY, ENOMEM, ENOSPC, ENODEV, EINVAL, EMFILE, ENOBUFS}) {
        if (words.find(strerror(error)) != std::string::npos) {
            return error;
        }
    }
    return EIO;
}

// The first line; what follows repeats the command.
kernel_refusal refusal(const char *output)
{
    std::string words = output == nullptr ? "" : output;
    words = words.substr(0, words.find('\n'));
    return {error_of(words), words.empty() ? "refused without a word" : words};
}

} // namespace

void nft_context::closer::operator()(nft_ctx *open) const { nft_ctx_free(open); }

// The library ends the program when it gets no socket: so one is tried before.
nft_context::nft_context(const std::string &name_space)
{
    (void)netlink_socket(NETLINK_NETFILTER, name_space);
    const namespace_visit visit(name_space);
    context_.reset(nft_ctx_new(NFT_CTX_DEFAULT));
    if (!context_ || nft_ctx_buffer_output(context_.get()) != 0 || nft_ctx_buffer_error(context_.get()) != 0) {
        throw std::system_error(errno == 0 ? ENOMEM : errno, std::generic_category(), "the packet filter");
    }
    nft_ctx_output_set_flags(context_.get(), NFT_CTX_OUTPUT_JSON | NFT_CTX_OUTPUT_NUMERIC_PRIO);
}

std::optional<kernel_refusal> nft_context::run(const json &commands)
{
    used_ = true;
    const std::string text = json{{"nftables", commands}}.dump();
    const int failed = nft_run_cmd_from_buffer(context_.get(), text.c_str());
    (void)nft_ctx_get_output_buffer(context_.get());
    const char *errors = nft_ctx_get_error_buffer(context_.get());
    return failed == 0 ? std::nullopt : std::optional(refusal(errors));
}

std::optional<kernel_refusal> nft_context::list(const json &command, json &found)
{
    used_ = true;
    const std::string text = json{{"nftables", json::array({command})}}.dump();
    const int failed = nft_run_cmd_from_buffer(context_.get(), text.c_str());
    const std::string output = nft_ctx_get_output_buffer(context_.get());
    const char *errors = nft_ctx_get_error_buffer(context_.get());
    if (failed != 0) {
        return refusal(errors);
    }
    const json parsed = json::parse(output, nullptr, false);
    if (!parsed.is_object() || !parsed.contains("nftables")) {
        return kernel_refusal{EBADMSG, "a listing that is none"};
    }
    found = parsed["nftables"];
    return std::nullopt;
}

void nft_context::rest()
{
    if (used_) {
        used_ = false;
        (void)malloc_trim(0);
    }
}

} // namespace kap_node
