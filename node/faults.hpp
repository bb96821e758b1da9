// The faults a service has been told to make: each speaks of the next n requests of one kind (or of any kind) and is
// forgotten once it has been made that often. Knows nothing of protocols; the service core carries them out.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kap_node
{

enum class fault_kind {
    reject, // value: the reason
    delay,  // value: milliseconds
    silent, // value: unused
};

struct fault {
    fault_kind kind;
    uint32_t request; // message number, or ANY_REQUEST
    std::string request_name;
    uint64_t left;
    uint32_t value;
};

inline constexpr uint32_t ANY_REQUEST = 0;

class fault_table
{
public:
    void add(fault entry);
    void clear() { faults_.clear(); }

    // The oldest fault that speaks of this request, counted down.
    std::optional<fault> take(uint32_t request);

    nlohmann::json show() const;

private:
    std::vector<fault> faults_;
};

} // namespace kap_node
