// Turns everything the daemon sent, started and stopped since the last look into lines of text, in order, so that a
// dialogue can be compared whole. Nothing is left out: a message that a story does not mention fails it.
#pragma once

#include <sstream>

#include "support/daemon.hpp"

namespace transcript
{

using namespace daemon_test;

inline std::string name_of(uint32_t mailbox)
{
    static const std::map<uint32_t, std::string> NAMES = {
        {IEPCSI, "iepcsi"}, {PMI, "pmi"},        {EMI, "emi"},    {FMI, "fmi"},           {AASI, "agent"},
        {CLIENT, "A"},      {OTHER_CLIENT, "B"}, {STRANGER, "C"}, {ITC_NO_MBOX, "nobody"}};
    auto found = NAMES.find(mailbox);
    return found != NAMES.end() ? found->second : "mailbox " + std::to_string(mailbox);
}

// The words behind a message's header, as a story tells them.
inline std::string iemli_line(const Message &m)
{
    std::ostringstream os;
    os << iemli_msg_to_string(m.msgno()) << " " << m.word(1);
    switch (m.msgno()) {
    case IEMLI_CREATE_INTER_ME_LINK_CFM:
        os << " link " << m.word(3);
        break;
    case IEMLI_CREATE_INTER_ME_LINK_REJ:
    case IEMLI_UPDATE_INTER_ME_LINK_REJ:
    case IEMLI_INIT_SERVICE_REJ:
        os << " reason " << m.word(3);
        break;
    case IEMLI_INTER_ME_LINK_STATUS_IND:
        os << " link " << m.word(3) << " " << iml_link_status_text(m.word(4), m.word(5));
        break;
    case IEMLI_INTER_ME_LINK_RTT_IND:
        os << " link " << m.word(3) << " min " << m.word(5) << " avg " << m.word(7) << " max " << m.word(9) << " valid "
           << static_cast<int>(m.bytes[40]);
        break;
    default:
        break;
    }
    return os.str();
}

inline std::string lower_line(const Message &m)
{
    std::ostringstream os;
    switch (m.msgno()) {
    case 0x1B1009:
        os << "enable vlan " << m.net_word(7) << " on " << m.text(12);
        break;
    case 0x1B100C:
        os << "disable vlan " << m.net_word(7) << " on " << m.text(12);
        break;
    case 0x1B10C6:
        os << "add " << m.net_word(3) << " endpoints";
        break;
    case 0x1B10C9:
        os << "remove " << m.net_word(3) << " endpoints";
        break;
    case 0x1B0F58:
        os << "default action " << m.net_word(3) << " on " << m.text(16);
        break;
    case 0x1B0F5B:
        os << "append static rule on " << m.text(16);
        break;
    case 0x1B0F5E:
        os << "remove static rule on " << m.text(16);
        break;
    case 0x1B0F67:
        os << "create policer on " << m.text(32);
        break;
    case 0x1B0F61:
        os << "append rule of " << m.net_word(22) << " entries on " << m.text(12);
        break;
    case 0x1B0F64:
        os << "remove rule " << m.net_word(3) << " on " << m.text(16);
        break;
    case 0x1A00443:
        os << "create path of link " << m.net_word(3);
        break;
    case 0x1A00444:
        os << "update path of link " << m.net_word(3);
        break;
    case 0x1A00445:
        os << "delete path of link " << m.net_word(3);
        break;
    case 0x1A00446:
        os << "path of link " << m.net_word(3) << ": latencies " << m.net_word(4) << " " << m.net_word(5) << " "
           << m.net_word(6) << ", status " << m.net_word(7);
        break;
    default:
        os << "0x" << std::hex << m.msgno();
        break;
    }
    return os.str();
}

inline std::string line_of(const fake::Sent &sent)
{
    const Message m = {sent};
    const bool client = m.to == CLIENT || m.to == OTHER_CLIENT || m.to == STRANGER;
    return name_of(m.to) + " <- " + (client ? iemli_line(m) : lower_line(m)) + "\n";
}

class Story : public DaemonTest
{
protected:
    std::map<uint32_t, fake::Session> seen_sessions;

    // What happened since the last look: messages in order, then sessions that ended and began.
    std::string happened()
    {
        std::string text;
        for (const fake::Sent &sent : fake::sent()) {
            text += line_of(sent);
        }
        forget_records();
        for (const auto &session : seen_sessions) {
            if (fake::sessions().count(session.first) == 0) {
                text += "supervision " + std::to_string(session.first) + " ended\n";
            }
        }
        for (const auto &session : fake::sessions()) {
            if (seen_sessions.count(session.first) == 0) {
                text += begun(session.second);
            }
        }
        seen_sessions = fake::sessions();
        return text;
    }

    static std::string begun(const fake::Session &session)
    {
        std::ostringstream os;
        os << "supervision " << session.id << " began: " << (session.params.sup_type == 1 ? "link" : "keep-alive")
           << " every " << session.params.interval << " s on " << session.params.if_name << " in " << session.name_space
           << "\n";
        return os.str();
    }
};

} // namespace transcript
