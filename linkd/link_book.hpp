// All links that there shall be: those that files declare, and those that were asked for at run time, which are kept in
// the state directory. What is wrong is told and left out; what is right is kept.
#pragma once

#include "declaration.hpp"
#include "settings.hpp"

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace linkd
{

class link_book
{
public:
    explicit link_book(const paths &where) : where_(where) {}

    // What was kept and what is declared, when the program begins. Of declarations with mistakes what is sound is
    // taken, so that one of them does not cost the others. Gives the mistakes, a line each.
    std::vector<std::string> load();
    // The declarations anew. With mistakes nothing is changed, and these are given.
    std::vector<std::string> reload();

    // What changes at run time; each gives what is wrong, or nothing. `known`: false for a name that nobody has.
    std::string add(const declaration &link);
    std::string change(const declaration &link);
    std::string remove(const std::string &name);
    // Round trips of a declared link are measured otherwise until the next reload; of another one for good.
    std::string measure(const std::string &name, const std::optional<rtt_wish> &rtt);

    // Every link, each with a name and a key that no other has.
    declarations all() const;
    const std::vector<std::string> &mistakes() const { return mistakes_; }

private:
    std::string file() const { return where_.state + "/links.toml"; }
    void load_kept(std::vector<std::string> &told);
    std::string keep(const declarations &kept);

    paths where_;
    declarations declared_;
    declarations kept_;
    std::map<std::string, std::optional<rtt_wish>> measured_; // of declared ones, in place of what is declared
    std::vector<std::string> mistakes_;                       // of the declarations, when they were read last
};

} // namespace linkd
