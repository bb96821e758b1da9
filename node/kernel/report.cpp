// What a keeper has to tell (report.hpp).
#include "kernel/report.hpp"

namespace kap_node
{

namespace
{

constexpr size_t LATEST_MOST = 16;

void tell_loss(line::text &text, uint64_t lost, const void * /*context*/)
{
    line::append(text, "kap-node: %llu lines were lost", static_cast<unsigned long long>(lost));
    line::end(text);
}

} // namespace

void kernel_report::tell(const std::string &text)
{
    latest_.push_back(text);
    if (latest_.size() > LATEST_MOST) {
        latest_.pop_front();
    }
    line::text out;
    line::append(out, "kap-node %s: %s", service_, text.c_str());
    line::end(out);
    line::put(writer_, out, tell_loss, nullptr);
}

void kernel_report::mended(const std::string &text, uint64_t count)
{
    mended_ += count;
    tell(text);
}

void kernel_report::left_over(const std::string &text)
{
    ++left_over_;
    tell(text);
}

void kernel_report::refused(const std::string &what, const kernel_refusal &why)
{
    ++refused_;
    tell(what + ": refused: " + why.words);
}

void kernel_report::trouble(const std::string &what, const kernel_refusal &why)
{
    const auto [known, is_new] = troubles_.try_emplace(what, why.words);
    if (is_new || known->second != why.words) {
        known->second = why.words;
        tell(what + ": " + why.words);
    }
}

nlohmann::json kernel_report::show() const
{
    return {{"mended", mended_},
            {"left_over", left_over_},
            {"refused", refused_},
            {"troubles", troubles_},
            {"latest", latest_}};
}

} // namespace kap_node
