// Hands on what the keeper tells to everybody who listens, in the order in which they were added. A change has its
// number before the first hears of it.
#pragma once

#include "past.hpp"

#include <vector>

namespace linkd
{

class hub : public listener
{
public:
    explicit hub(past &numbers) : numbers_(numbers) {}

    // Whoever is added lives as long as the hub is used.
    void add(listener &who) { listeners_.push_back(&who); }

    void changed(const link_change &change) override
    {
        link_change numbered = change;
        numbers_.number(numbered);
        for (listener *who : listeners_) {
            who->changed(numbered);
        }
    }
    void measured(const rtt_sample &sample) override
    {
        for (listener *who : listeners_) {
            who->measured(sample);
        }
    }
    void counted(const std::string &link, uint32_t count, uint64_t results, uint64_t lost) override
    {
        for (listener *who : listeners_) {
            who->counted(link, count, results, lost);
        }
    }

private:
    past &numbers_;
    std::vector<listener *> listeners_;
};

} // namespace linkd
