// The links that there shall be (link_book.hpp).
#include "link_book.hpp"

#include "loop.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

namespace linkd
{

namespace
{

constexpr int64_t US_PER_S = 1'000'000;

bool write_all(int fd, const std::string &text)
{
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t n = write(fd, text.data() + written, text.size() - written);
        if (n < 0 && errno != EINTR) {
            return false;
        }
        written += n > 0 ? static_cast<size_t>(n) : 0;
    }
    return true;
}

bool sync_directory(const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool synced = fd >= 0 && fsync(fd) == 0;
    if (fd >= 0) {
        close(fd);
    }
    return synced;
}

// Either the whole text is there afterwards, also when the power goes, or what was there before. Gives an errno value.
int write_file(const std::string &directory, const std::string &path, const std::string &text)
{
    const std::string fresh = path + ".new";
    const int fd = open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0640);
    if (fd < 0) {
        return errno;
    }
    const bool written = write_all(fd, text) && fsync(fd) == 0;
    const int error = written ? 0 : errno;
    close(fd);
    if (error != 0) {
        (void)unlink(fresh.c_str());
        return error;
    }
    return rename(fresh.c_str(), path.c_str()) == 0 && sync_directory(directory) ? 0 : errno;
}

} // namespace

void link_book::load_kept(std::vector<std::string> &told)
{
    std::error_code error;
    if (!std::filesystem::exists(file(), error)) {
        return;
    }
    std::ifstream stream(file(), std::ios::binary);
    std::stringstream text;
    std::vector<std::string> wrong;
    if (!stream || (stream.peek() != std::ifstream::traits_type::eof() && !(text << stream.rdbuf()))) {
        wrong.push_back(file() + ": cannot be read: " + strerror(errno));
    } else {
        read_links(text.str(), file(), false, kept_, wrong);
    }
    if (wrong.empty()) {
        return;
    }
    const std::string aside = file() + ".broken-" + std::to_string(real_us() / US_PER_S);
    std::filesystem::rename(file(), aside, error);
    told.insert(told.end(), wrong.begin(), wrong.end());
    told.push_back(file() + ": set aside as " + aside);
    // What was right in it is kept from now on, too.
    if (const std::string failed = keep(kept_); !failed.empty()) {
        told.push_back(failed);
    }
}

std::vector<std::string> link_book::load()
{
    std::vector<std::string> told;
    load_kept(told);
    mistakes_.clear();
    declared_ = read_link_files(where_.links, mistakes_);
    const auto wrong = mistakes();
    told.insert(told.end(), wrong.begin(), wrong.end());
    note_measured();
    return told;
}

std::vector<std::string> link_book::reload()
{
    std::vector<std::string> wrong;
    declarations read = read_link_files(where_.links, wrong);
    mistakes_ = wrong;
    if (wrong.empty()) {
        declared_ = std::move(read);
        measured_.clear();
        note_measured();
    }
    return wrong;
}

// The file first: what could not be kept is not done.
std::string link_book::keep(const declarations &kept)
{
    const int error =
        write_file(where_.state, file(),
                   "# Links that were asked for at run time. kap-linkd writes this file.\n\n" + toml_of(kept));
    if (error != 0) {
        return "it cannot be kept in " + file() + ": " + strerror(error);
    }
    kept_ = kept;
    note_measured();
    return "";
}

// What stands there now. Switching it off forgets nothing.
void link_book::note_measured()
{
    const declarations now = all();
    std::erase_if(measured_last_, [&](const auto &each) { return !now.contains(each.first); });
    for (const auto &[name, link] : now) {
        if (link.rtt) {
            measured_last_[name] = *link.rtt;
        }
    }
}

std::optional<rtt_wish> link_book::measured_last(const std::string &name) const
{
    const auto found = measured_last_.find(name);
    return found == measured_last_.end() ? std::nullopt : std::optional(found->second);
}

// A declaration stands in the place of what was asked for at run time under its name, or of the same link.
std::vector<std::string> link_book::hidden() const
{
    std::map<link_key, const declaration *> keys;
    for (const auto &[name, link] : declared_) {
        keys.emplace(link.key, &link);
    }
    std::vector<std::string> lines;
    for (const auto &[name, link] : kept_) {
        const auto same_name = declared_.find(name);
        const auto same_key = keys.find(link.key);
        if (same_name == declared_.end() && same_key == keys.end()) {
            continue;
        }
        const declaration &other = same_name != declared_.end() ? same_name->second : *same_key->second;
        lines.push_back(text_of(other.at) + "\"" + other.name + "\" stands in the place of \"" + name +
                        "\", which was asked for at run time; \"delete\" forgets that one");
    }
    return lines;
}

std::vector<std::string> link_book::mistakes() const
{
    std::vector<std::string> all = mistakes_;
    const auto more = hidden();
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

std::string link_book::add(const declaration &link)
{
    std::string wrong = conflict_of(link, all());
    if (!wrong.empty()) {
        return wrong;
    }
    declarations kept = kept_;
    kept[link.name] = link;
    return keep(kept);
}

std::string link_book::change(const declaration &link) { return add(link); }

std::string link_book::remove(const std::string &name)
{
    declarations kept = kept_;
    kept.erase(name);
    return keep(kept);
}

std::string link_book::measure(const std::string &name, const std::optional<rtt_wish> &rtt)
{
    if (!declared_.contains(name)) {
        declarations kept = kept_;
        kept.at(name).rtt = rtt;
        return keep(kept);
    }
    measured_[name] = rtt;
    note_measured();
    return "";
}

declarations link_book::all() const
{
    declarations out;
    std::set<link_key> keys;
    for (const declarations *source : {&declared_, &kept_}) {
        for (const auto &[name, link] : *source) {
            if (!out.contains(name) && keys.insert(link.key).second) {
                out.emplace(name, link);
            }
        }
    }
    for (const auto &[name, rtt] : measured_) {
        if (const auto found = out.find(name); found != out.end()) {
            found->second.rtt = rtt;
        }
    }
    return out;
}

} // namespace linkd
