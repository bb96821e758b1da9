// One entry of the journal for every change of a link (journal.hpp).
#include "journal.hpp"

#include "quiet_thread.hpp"

// Fields name who writes, not where in the source.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

namespace linkd
{

namespace
{

constexpr size_t WAITING_AT_MOST = 20'000;

int priority_of(journal_kind kind)
{
    switch (kind) {
    case journal_kind::up:
        return LOG_NOTICE;
    case journal_kind::lost:
    case journal_kind::refused:
        return LOG_WARNING;
    case journal_kind::other:
        break;
    }
    return LOG_INFO;
}

// The two largest units, as people say it.
std::string span_of(int64_t us)
{
    constexpr int64_t SECOND = 1'000'000;
    if (us < SECOND) {
        return std::to_string(std::max<int64_t>(us, 0) / 1000) + " ms";
    }
    const int64_t seconds = us / SECOND;
    const std::pair<const char *, int64_t> units[] = {{" d", 86400}, {" h", 3600}, {" min", 60}, {" s", 1}};
    for (size_t i = 0; i < std::size(units); i++) {
        const auto &[name, length] = units[i];
        if (seconds < length) {
            continue;
        }
        std::string text = std::to_string(seconds / length) + name;
        if (i + 1 < std::size(units) && seconds % length / units[i + 1].second != 0) {
            text += " " + std::to_string(seconds % length / units[i + 1].second) + units[i + 1].first;
        }
        return text;
    }
    return "0 s";
}

// A field's value has no line end of its own here: one change is one line, wherever it is read.
std::string one_line(std::string text)
{
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < ' '; }, ' ');
    return text;
}

} // namespace

journal_kind journal_kind_of(const link_change &change)
{
    if (change.to == link_state::enabled) {
        return journal_kind::up;
    }
    if (change.to == link_state::rejected) {
        return journal_kind::refused;
    }
    if (change.to == link_state::disabled || (change.from == link_state::enabled && change.to == link_state::waiting)) {
        return journal_kind::lost;
    }
    return journal_kind::other;
}

const char *message_id_of(journal_kind kind)
{
    switch (kind) {
    case journal_kind::up:
        return "5f0a3d2a6d0c4b0f8d1c6f6be0a3c7e1";
    case journal_kind::lost:
        return "b1d7a0c52c7b4e9f9a3fd2f4e87c0d26";
    case journal_kind::refused:
        return "2c9e4f7716b84a5c8e0d93b1f5a6e8d4";
    case journal_kind::other:
        break;
    }
    return "e84b6d90f3a14c27b5d8a1726c0f9e35";
}

std::string sentence_of(const link_change &change)
{
    std::string text = change.link.name + " (" + change.link.port + ", VLAN " + std::to_string(change.link.vlan) +
                       "): " + name_of(change.to);
    if (!change.reason.empty()) {
        text += " (" + change.reason + ")";
    }
    return one_line(text + " after " + span_of(change.lasted_us) + " " + name_of(change.from));
}

std::vector<std::string> journal_entry_of(const link_change &change)
{
    const journal_kind kind = journal_kind_of(change);
    return {"MESSAGE=" + sentence_of(change),
            std::string("MESSAGE_ID=") + message_id_of(kind),
            "PRIORITY=" + std::to_string(priority_of(kind)),
            "SYSLOG_IDENTIFIER=kap-linkd",
            "LINK=" + one_line(change.link.name),
            "PORT=" + one_line(change.link.port),
            "VLAN=" + std::to_string(change.link.vlan),
            "FAR=" + one_line(change.link.far),
            std::string("FROM=") + name_of(change.from),
            std::string("STATE=") + name_of(change.to),
            "REASON=" + one_line(change.reason),
            "LASTED_USEC=" + std::to_string(std::max<int64_t>(change.lasted_us, 0)),
            "CHANGE_ID=" + std::to_string(change.id)};
}

// Shared with the thread, which may be held up for longer than the program wants to wait for it.
struct journal::outbox {
    std::mutex mutex;
    std::condition_variable more, done;
    std::deque<std::vector<std::string>> waiting;
    uint64_t dropped = 0;
    bool busy = false;
    bool over = false;
    std::string socket;

    void write(const std::vector<std::string> &entry) const
    {
        // The library says nothing when there is no journal.
        if (access(socket.c_str(), W_OK) == 0) {
            std::vector<iovec> parts;
            for (const std::string &field : entry) {
                parts.push_back({const_cast<char *>(field.data()), field.size()});
            }
            if (sd_journal_sendv(parts.data(), static_cast<int>(parts.size())) == 0) {
                return;
            }
        }
        (void)fprintf(stderr, "kap-linkd: %s\n", entry.front().c_str() + sizeof "MESSAGE=" - 1);
    }

    void run()
    {
        std::unique_lock lock(mutex);
        for (;;) {
            more.wait(lock, [this] { return over || !waiting.empty(); });
            if (waiting.empty()) {
                return;
            }
            const std::vector<std::string> entry = std::move(waiting.front());
            waiting.pop_front();
            const uint64_t lost = std::exchange(dropped, 0);
            busy = true;
            lock.unlock();
            if (lost != 0) {
                write({"MESSAGE=" + std::to_string(lost) + " changes were not told: the journal did not read",
                       "PRIORITY=4", "SYSLOG_IDENTIFIER=kap-linkd"});
            }
            write(entry);
            lock.lock();
            busy = false;
            done.notify_all();
        }
    }
};

journal::journal(std::string socket) : outbox_(std::make_shared<outbox>())
{
    outbox_->socket = std::move(socket);
    quiet_thread([mine = outbox_] { mine->run(); }).detach();
}

journal::~journal()
{
    constexpr auto PATIENCE = std::chrono::seconds(2);
    std::unique_lock lock(outbox_->mutex);
    (void)outbox_->done.wait_for(lock, PATIENCE, [this] { return outbox_->waiting.empty() && !outbox_->busy; });
    outbox_->over = true;
    outbox_->more.notify_all();
}

void journal::changed(const link_change &change)
{
    const std::lock_guard lock(outbox_->mutex);
    outbox_->waiting.push_back(journal_entry_of(change));
    if (outbox_->waiting.size() > WAITING_AT_MOST) {
        outbox_->waiting.pop_front();
        outbox_->dropped++;
    }
    outbox_->more.notify_all();
}

} // namespace linkd
