// One entry of the journal for every change of a link, with fields that journalctl can look for: LINK=, PORT=, VLAN=,
// FAR=, FROM=, STATE=, REASON=, LASTED_USEC=, CHANGE_ID=. A link that was lost or refused is a warning, one that is up
// a notice, everything else information. The MESSAGE_IDs are explained in packaging/catalog/kap-linkd.catalog.
//
// A thread of its own writes: the journal's socket holds up whoever writes while the journal does not read. Where there
// is no journal, a line on stderr says the same.
#pragma once

#include "change.hpp"

#include <memory>
#include <utility>
#include <vector>

namespace linkd
{

enum class journal_kind {
    up,
    lost,
    refused,
    other
};

journal_kind journal_kind_of(const link_change &change);
const char *message_id_of(journal_kind kind);
// "to-north (IDL_A1, VLAN 100): enabled after 3 s disabled", "...: disabled (no connectivity) after 2 h 5 min enabled"
std::string sentence_of(const link_change &change);
// The entry: "NAME=value", MESSAGE first.
std::vector<std::string> journal_entry_of(const link_change &change);

class journal : public listener
{
public:
    explicit journal(std::string socket = "/run/systemd/journal/socket");
    ~journal() override; // gives a journal that does not read two seconds for what is left
    journal(const journal &) = delete;
    journal &operator=(const journal &) = delete;

    void changed(const link_change &change) override;

private:
    struct outbox;
    std::shared_ptr<outbox> outbox_;
};

} // namespace linkd
