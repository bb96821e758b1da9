// The file of the links that were asked for at run time, as an earlier run, a full disk or somebody's editor left it.
// Whatever is in it: the program begins, what is sound is there, a broken file is set aside and not lost, and the next
// start finds the same links and nothing wrong.
#include <filesystem>
#include <fstream>
#include <iterator>

#include "directory.hpp"
#include "input.hpp"
#include "link_book.hpp"

namespace
{

using namespace linkd;
using fuzz::require;

namespace fs = std::filesystem;

std::string content_of(const fs::path &file)
{
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

void require_same(const declarations &one, const declarations &other)
{
    require(one.size() == other.size(), "as many links");
    for (const auto &[name, link] : one) {
        const auto found = other.find(name);
        require(found != other.end() && found->second.key == link.key && found->second.app_links == link.app_links &&
                    found->second.rtt == link.rtt && !found->second.declared,
                "the same links");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const fuzz::directory where;
    const std::string text(reinterpret_cast<const char *>(data), size);
    paths files;
    files.state = where.path;
    files.links = where.path + "/declared/links.toml";
    const fs::path kept = where.path + "/links.toml";
    std::ofstream(kept, std::ios::binary) << text;

    link_book book(files);
    const bool sound = book.load().empty();
    bool set_aside = false;
    for (const auto &entry : fs::directory_iterator(where.path)) {
        if (entry.path() != kept) {
            require(content_of(entry.path()) == text, "what is set aside is what was there");
            set_aside = true;
        }
    }
    require(set_aside != sound, "what is broken is set aside, and nothing else is");
    require(!sound || content_of(kept) == text, "what is sound stays as it is");

    link_book next(files);
    require(next.load().empty(), "the next start finds nothing wrong");
    require_same(book.all(), next.all());
    for (declarations left = next.all(); !left.empty(); left = next.all()) { // one may have stood before another
        require(next.remove(left.begin()->first).empty(), "each can be taken out");
    }
    for (const auto &entry : fs::directory_iterator(where.path)) {
        fs::remove(entry.path());
    }
    return 0;
}
