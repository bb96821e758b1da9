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
    // How the link's round trips were measured last, also where they are not measured now.
    std::optional<rtt_wish> measured_last(const std::string &name) const;

    // Every link, each with a name and a key that no other has.
    declarations all() const;
    // Whether a link of that name was asked for at run time, also where a declared one stands in its place.
    bool is_kept(const std::string &name) const { return kept_.contains(name); }
    // Of the declarations, when they were read last; and what of the run time is not there because of them.
    std::vector<std::string> mistakes() const;

private:
    std::string file() const { return where_.state + "/links.toml"; }
    void load_kept(std::vector<std::string> &told);
    std::string keep(const declarations &kept);
    std::vector<std::string> hidden() const;
    void note_measured();

    paths where_;
    declarations declared_;
    declarations kept_;
    std::map<std::string, std::optional<rtt_wish>> measured_; // of declared ones, in place of what is declared
    std::map<std::string, rtt_wish> measured_last_;
    std::vector<std::string> mistakes_;
};

} // namespace linkd
