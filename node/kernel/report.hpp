// What a keeper has to tell: what it mended because somebody else had changed it, what it took away of an earlier run,
// and what the kernel refused. Counted, shown, and each told in a line on stderr that holds nobody up.
#pragma once

#include "kernel_refusal.hpp"
#include "line.hpp"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <deque>
#include <map>
#include <string>

namespace kap_node
{

class kernel_report
{
public:
    explicit kernel_report(const char *service) : service_(service) {}

    void mended(const std::string &text, uint64_t count = 1);
    void left_over(const std::string &text);
    // A request was refused.
    void refused(const std::string &what, const kernel_refusal &why);
    // Something cannot be mended: told once for each thing, until it is another trouble or none.
    void trouble(const std::string &what, const kernel_refusal &why);
    void no_trouble(const std::string &what) { troubles_.erase(what); }

    uint64_t mended_count() const { return mended_; }
    nlohmann::json show() const;

private:
    void tell(const std::string &text);

    const char *service_;
    line::writer writer_;
    uint64_t mended_ = 0;
    uint64_t left_over_ = 0;
    uint64_t refused_ = 0;
    std::map<std::string, std::string> troubles_;
    std::deque<std::string> latest_;
};

} // namespace kap_node
