// The journal of what has no name in the kernel (journal.hpp).
#include "kernel/journal.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <system_error>

namespace kap_node
{

namespace
{

constexpr const char *DEFAULT_DIRECTORY = "/run/kap-node";
// A file of fewer lines than this is left as it is, however much of it is past.
constexpr size_t LINES_WORTH_WRITING_ANEW = 1000;
constexpr int OPEN_FLAGS = O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW;

std::string directory()
{
    const char *named = getenv("RUNTIME_DIRECTORY");
    return named != nullptr && *named != '\0' ? named : DEFAULT_DIRECTORY;
}

bool write_all(int fd, const std::string &text)
{
    const ssize_t written = write(fd, text.data(), text.size());
    if (written >= 0 && static_cast<size_t>(written) < text.size()) {
        errno = ENOSPC;
    }
    return written == static_cast<ssize_t>(text.size());
}

kernel_refusal refusal_of(const std::string &path, int error)
{
    return {EIO, "the journal " + path + " cannot be written: " + strerror(error)};
}

} // namespace

kernel_journal::kernel_journal(const std::string &name) : path_(directory() + "/" + name)
{
    (void)mkdir(directory().c_str(), 0755); // that it is there already is as good
    read();
    fd_ = open(path_.c_str(), OPEN_FLAGS, 0600);
    if (fd_ < 0) {
        throw std::system_error(errno, std::generic_category(), path_);
    }
    if (const auto refused = write_anew()) {
        close(fd_);
        throw std::system_error(EIO, std::generic_category(), refused->words);
    }
}

kernel_journal::~kernel_journal() { close(fd_); }

void kernel_journal::read()
{
    std::ifstream file(path_, std::ios::binary);
    std::string line;
    while (std::getline(file, line) && !file.eof()) {
        if (line.size() > 1 && line[0] == '+') {
            entries_.insert(line.substr(1));
        } else if (line.size() > 1 && line[0] == '-') {
            entries_.erase(line.substr(1));
        }
    }
}

// Beside the file first, so that a crash leaves the one or the other whole.
std::optional<kernel_refusal> kernel_journal::write_anew()
{
    const std::string fresh_path = path_ + ".new";
    (void)unlink(fresh_path.c_str());
    const int fresh = open(fresh_path.c_str(), OPEN_FLAGS | O_EXCL, 0600);
    if (fresh < 0) {
        return refusal_of(path_, errno);
    }
    std::string text;
    for (const std::string &entry : entries_) {
        text += "+" + entry + "\n";
    }
    if (!write_all(fresh, text) || rename(fresh_path.c_str(), path_.c_str()) != 0) {
        const int error = errno;
        close(fresh);
        return refusal_of(path_, error);
    }
    close(fd_);
    fd_ = fresh;
    lines_ = entries_.size();
    return std::nullopt;
}

// A part of a line gets an end with the next one, and is then an entry that nothing in the kernel answers to; so it is
// cut off.
std::optional<kernel_refusal> kernel_journal::append(const std::string &text)
{
    struct stat before {
    };
    if (fstat(fd_, &before) == 0 && write_all(fd_, text)) {
        return std::nullopt;
    }
    const int error = errno;
    (void)!ftruncate(fd_, before.st_size);
    return refusal_of(path_, error);
}

std::optional<kernel_refusal> kernel_journal::add(std::span<const std::string> entries)
{
    std::string text;
    for (const std::string &entry : entries) {
        text += "+" + entry + "\n";
    }
    if (auto refused = append(text)) {
        return refused;
    }
    lines_ += entries.size();
    entries_.insert(entries.begin(), entries.end());
    return std::nullopt;
}

// What cannot be written down here does no harm: the entry is looked for in the kernel again, and is not there.
void kernel_journal::forget(const std::string &entry)
{
    if (entries_.erase(entry) == 0) {
        return;
    }
    (void)append("-" + entry + "\n");
    ++lines_;
    if (lines_ > LINES_WORTH_WRITING_ANEW && lines_ > 4 * entries_.size()) {
        (void)write_anew();
    }
}

} // namespace kap_node
