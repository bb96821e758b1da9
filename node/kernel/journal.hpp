// What a keeper has put into the kernel and that has no name there: a file of lines, so that a later run knows what an
// earlier one has left. A line is written before the kernel is asked. It lies in the directory that RUNTIME_DIRECTORY
// names (/run/kap-node when nothing is named), which does not outlive the machine's kernel, as what it tells of.
//
// A line that begins with + adds an entry, one with - takes it away; the file is written anew when it is mostly past.
// A last line without an end, which a crash has left, counts for nothing.
#pragma once

#include "kernel_refusal.hpp"

#include <optional>
#include <set>
#include <span>
#include <string>

namespace kap_node
{

class kernel_journal
{
public:
    // Opens or makes the file of that name; throws std::system_error.
    explicit kernel_journal(const std::string &name);
    ~kernel_journal();
    kernel_journal(const kernel_journal &) = delete;
    kernel_journal &operator=(const kernel_journal &) = delete;

    const std::set<std::string> &entries() const { return entries_; }
    bool holds(const std::string &entry) const { return entries_.contains(entry); }

    // A refusal is the file's: what could not be written down must not be done. No entry has a line feed in it.
    std::optional<kernel_refusal> add(std::span<const std::string> entries);
    void forget(const std::string &entry);

private:
    std::optional<kernel_refusal> append(const std::string &text);
    std::optional<kernel_refusal> write_anew();
    void read();

    std::string path_;
    int fd_ = -1;
    size_t lines_ = 0;
    std::set<std::string> entries_;
};

} // namespace kap_node
