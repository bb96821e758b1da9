// vornctl reload: kap-linkd reads what is declared once more.
#include <cstdio>

#include "asking.hpp"
#include "output.hpp"

namespace vornctl
{

void add_reload(CLI::App &app, call &c)
{
    CLI::App *reload = app.add_subcommand("reload", "kap-linkd reads the declared links again and does what is new");
    add_json(*reload, c);
    reload->callback([&c] {
        c.run = [&c] {
            const auto answer = ask_linkd(c, "reload");
            const int64_t added = number_in(answer, "added");
            const int64_t changed = number_in(answer, "changed");
            const int64_t removed = number_in(answer, "removed");
            if (c.json) {
                print_json(json{{"added", added}, {"changed", changed}, {"removed", removed}});
            } else {
                (void)printf("links added: %lld, changed: %lld, removed: %lld\n", static_cast<long long>(added),
                             static_cast<long long>(changed), static_cast<long long>(removed));
            }
            return exits::well;
        };
    });
}

} // namespace vornctl
