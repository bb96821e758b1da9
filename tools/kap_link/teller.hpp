// What kap-link prints: one line for each thing that happens to its link, with the time, in words or as JSON. And what
// it says on standard error of that which is in its way.
#pragma once

#include "words.hpp"

#include <string>

namespace kap_link
{

class teller
{
public:
    explicit teller(const wish &wanted);

    void created(uint32_t link_ref) const;
    void status(const kap_iemli_event &event) const;
    void round_trip(const kap_iemli_rtt &rtt) const;
    void lost(const char *what) const; // the link is gone with what it stood on, and is asked for again
    void deleted() const;

    // False: standard output takes no more.
    static bool is_heard();

private:
    // `words`: the line for people; `fields`: the JSON's own, each with a comma before it.
    void line(const char *event, const std::string &words, const std::string &fields) const;

    std::string port_;
    unsigned vlan_;
    bool json_;
};

// On standard error, with the program's name.
__attribute__((format(printf, 1, 2))) void complain(const char *format, ...);

} // namespace kap_link
