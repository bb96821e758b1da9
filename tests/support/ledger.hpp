// What must hold of the daemon whatever happens around it, in one place. The ledger is told what clients asked, what
// was answered to the daemon and what it sent; it looks at the daemon's tables and at the platform in memory, and says
// what does not hold. It decides nothing and sends nothing.
//
//   ledger.begin("PMI confirms");           what the step is, for whoever reads it
//   ledger.asks(client, bytes);             before a client's request is delivered
//   ... the step ...
//   ledger.end();                           takes in what was sent, checks everything
//   EXPECT_EQ(ledger.broken(), "");
//
// What is checked is told at each check_ function, with the cases in which the promise ends.
#pragma once

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "iemli/iemli_session.hpp"
#include "manager/links/procedure_record.hpp"
#include "manager/ports/port_mapping.hpp"
#include "manager/rules/port_rules.hpp"
#include "support/daemon.hpp"

namespace daemon_test
{

class Ledger
{
public:
    // Messages of clients that the ledger was not told of may arrive: then it does not judge answers.
    bool knows_every_request = true;

    void begin(const std::string &what)
    {
        step_ = what;
        service_lost_ = false;
        service_back_ = false;
        restart_may_fail_ = false;
        answering_ = false;
        ended_by_term_.clear();
    }

    // ---- What happens ----

    void asks(uint32_t client, const Bytes &bytes)
    {
        const IemliSession *session = session_of(client, word(bytes, 2));
        const uint32_t msgno = word(bytes, 0);
        if (msgno == IEMLI_TERM_SERVICE_REQ && session != nullptr && iemli_session_any_busy()) {
            discard_queued(session->server_conn_ref);
        }
        asks_[{client, word(bytes, 1)}] = {msgno, session != nullptr ? session->server_conn_ref : 0, OPEN};
    }

    // The client is dead: what its sessions have queued is discarded.
    void dies(uint32_t client)
    {
        dead_.insert(client);
        for (const IemliSession *s = iemli_session_first(); s != nullptr; s = s->next) {
            if (s->client_mbox == client) {
                discard_queued(s->server_conn_ref);
            }
        }
    }

    // PMI or EMI answers the request; to be called before the answer is delivered.
    void answers(const fake::Sent &request, bool yes)
    {
        answering_ = true;
        const bool gives = request.msgno() == PMI_ENABLE || request.msgno() == EMI_ADD;
        if (yes) {
            apply(request, gives ? 1 : -1);
        } else if (!gives || sent_while_answering_.count(id_of(request)) > 0) {
            // It keeps what should have gone, or does not take back what it gave away.
            excuse(vlan_of(request));
        }
    }

    // PMI or EMI dies with the request unanswered.
    void loses(const fake::Sent &request) { excuse(vlan_of(request)); }

    // A service is lost: every session ends, unless one was lost before (a session that was opened since goes on).
    // Without its ports the daemon cannot take back what links have.
    void loses_service(uint32_t service)
    {
        service_lost_ = manager_state() != KAP_VORN_FAULTY_STATE;
        std::erase_if(sent_while_answering_, [=](const auto &id) { return id.first == service; }); // they count anew
        excuse_everything_under_way();
        if (service == EMI || service == PMI || service == IEPCSI) {
            for (const iml_link *link = iml_link_first(); link != nullptr; link = link->next) {
                excuse(link->link_data->vlanId);
            }
        }
    }
    // A service is back: publishing forgets the sessions that were opened meanwhile, and leaves their links.
    void gets_service() { service_back_ = true; }
    // A create that is finished in this step may be refused because of it, and then leaves what it has set up.
    void supervision_start_may_fail() { excuse_everything_under_way(); }
    void supervision_restart_may_fail() { restart_may_fail_ = true; }

    // Anybody sends anything, also what only services and the platform may: then the tables must be sound, and the
    // sessions of the library the links' own; what is held by whom, and who was told what, is not judged.
    void foreign_messages() { foreign_ = true; }

    // Takes in what was sent in this step, and checks.
    void end()
    {
        for (const fake::Sent &message : fake::sent()) {
            take(message);
        }
        check();
        remember();
    }

    // The first that did not hold, and in which step; empty: everything holds.
    [[nodiscard]] const std::string &broken() const { return broken_; }

    // How often each kind of thing was seen: a walk that never got there proves nothing.
    [[nodiscard]] const std::map<std::string, uint64_t> &seen() const { return seen_; }

private:
    static constexpr uint32_t PMI_ENABLE = 0x1B1009;
    static constexpr uint32_t EMI_ADD = 0x1B10C6;
    static constexpr uint32_t PORT_ENDPOINT_VLAN = 10; // of ports, not of links

    enum ask_state {
        OPEN,
        ANSWERED,
        DISCARDED, // with its session, or by a term or a death
    };
    struct ask {
        uint32_t msgno;
        uint32_t session; // server_conn_ref; 0: it had none
        ask_state state;
    };
    using ask_key = std::pair<uint32_t, uint32_t>; // client, procedure_ref
    using held_key = std::pair<uint32_t, Bytes>;   // PMI or EMI, what it holds

    struct seat { // of a session
        uint32_t client;
        bool disturbed = false;
    };

    void fail(const std::string &what)
    {
        if (broken_.empty()) {
            broken_ = what + "; in the step: " + step_;
        }
    }
    void expect(bool holds, const std::string &what)
    {
        if (!holds) {
            fail(what);
        }
    }
    static std::string text(uint32_t number) { return std::to_string(number); }

    // ---- Answers ----

    static const IemliSession *session_of(uint32_t client, uint32_t connection_ref)
    {
        const IemliSession *session = iemli_session_find(connection_ref);
        return session != nullptr && session->client_mbox == client ? session : nullptr;
    }

    // Queued requests of the session are dropped by a term or a death that comes while something is under way.
    void discard_queued(uint32_t server_conn_ref)
    {
        const IemliSession *session = iemli_session_find(server_conn_ref);
        for (const IemliQueuedRequest *entry = session->queue_head; entry != nullptr; entry = entry->next) {
            const auto found = asks_.find({session->client_mbox, iemli_header_of(entry->msg)->procedure_ref});
            if (found != asks_.end()) {
                found->second.state = DISCARDED;
            }
        }
    }

    static bool fits(uint32_t request, uint32_t answer)
    {
        switch (request) {
        case IEMLI_TERM_SERVICE_REQ:
        case IEMLI_DELETE_INTER_ME_LINK_REQ:
        case IEMLI_DISABLE_INTER_ME_LINK_RTT_REQ:
            return answer == request + 1; // these have no reject
        default:
            return answer == request + 1 || answer == request + 2;
        }
    }

    // An answer belongs to a request that was asked, has its kind, and is the first. Only a procedure whose session was
    // lost with a service may answer whoever has that session's reference now; that session is disturbed from then on:
    // the daemon takes it for one that waits no more.
    void take_answer(const fake::Sent &message)
    {
        const uint32_t ref = word(message.bytes, 1);
        const auto found = asks_.find({message.to, ref});
        if (found != asks_.end() && found->second.state == OPEN && fits(found->second.msgno, message.msgno())) {
            found->second.state = ANSWERED;
            if (found->second.msgno == IEMLI_TERM_SERVICE_REQ) {
                ended_by_term_.insert(found->second.session);
            }
            ++seen_[std::string("answer ") + iemli_msg_to_string(message.msgno())];
            return;
        }
        for (auto &[session, one] : seats_) {
            if (one.client == message.to && (orphans_.count(session) > 0 || one.disturbed)) {
                one.disturbed = true;
                ++seen_["answer of a procedure whose session was lost"];
                return;
            }
        }
        fail(std::string(iemli_msg_to_string(message.msgno())) + " for procedure " + text(ref) +
             (found == asks_.end() ? " that nobody asked for"
                                   : " that is answered already, or asks for something else"));
    }

    void take(const fake::Sent &message)
    {
        switch (message.to) {
        case PMI:
        case EMI:
            if (answering_) {
                sent_while_answering_.insert(id_of(message));
            }
            return;
        case AASI:
            return;
        case CLIENT:
        case OTHER_CLIENT:
        case STRANGER:
            break;
        default:
            return;
        }
        if (message.msgno() == IEMLI_INTER_ME_LINK_STATUS_IND) {
            told_[{message.to, word(message.bytes, 3)}] = {word(message.bytes, 4), word(message.bytes, 5)};
            ++seen_["status indication"];
        } else if (message.msgno() == IEMLI_INTER_ME_LINK_RTT_IND) {
            ++seen_["RTT indication"];
        } else if (knows_every_request) {
            take_answer(message);
        }
    }

    // ---- What PMI and EMI hold ----

    static std::pair<uint32_t, uint32_t> id_of(const fake::Sent &request)
    {
        return {request.to, net_word(request.bytes, 1)};
    }
    static uint32_t vlan_of(const fake::Sent &request)
    {
        return request.to == PMI ? net_word(request.bytes, 7) : net_word(request.bytes, (16 + 76) / 4);
    }
    void excuse(uint32_t vlan) { unsure_.insert(vlan); }
    void excuse_everything_under_way()
    {
        for (const iml_link_proc *proc = link_proc_newest(); proc != nullptr; proc = proc->next) {
            excuse(proc->link_data->vlanId);
        }
    }

    void apply(const fake::Sent &request, int change)
    {
        if (request.to == PMI) {
            held_[{vlan_of(request), Bytes(request.bytes.begin() + 12, request.bytes.end())}] += change;
            return;
        }
        for (size_t at = 16; at + 100 <= request.bytes.size(); at += 100) {
            const auto *first = request.bytes.data() + at;
            held_[{vlan_of(request), Bytes(first, first + 100)}] += change;
        }
    }

    // What PMI and EMI have to hold for the links of each VLAN.
    static std::map<held_key, int> needed()
    {
        std::map<held_key, int> all;
        for (const iml_link *link = iml_link_first(); link != nullptr; link = link->next) {
            const IemliLinkData *data = link->link_data;
            if (!is_tn_port(data->imlPortName)) {
                ++all[{data->vlanId,
                       Builder().text(iemli_to_iepcsi_port_name(data->imlPortName), 16).n32(data->vlanId)}];
            }
            EmiEndpoint *endpoints = nullptr;
            const uint32_t count = build_link_acl_rules(data, &endpoints);
            for (uint32_t i = 0; i < count; ++i) {
                const auto *first = reinterpret_cast<const uint8_t *>(&endpoints[i]);
                ++all[{data->vlanId, Bytes(first, first + sizeof endpoints[i])}];
            }
            free(endpoints);
        }
        return all;
    }

    // ---- Checks ----

    void check()
    {
        notice_orphans_end();
        check_sessions();
        if (knows_every_request) {
            check_requests();
        }
        check_table();
        check_supervision();
        if (!foreign_) {
            check_holdings();
            check_told();
        }
        check_leaks();
    }

    // A procedure whose session was lost with a service completes like any other: it clears the flag of whoever has
    // that session's reference now, and has the next queued request taken while another one may be under way. From then
    // on nothing is promised to the sessions that are there.
    void notice_orphans_end()
    {
        std::set<uint64_t> still_there;
        for (const iml_link_proc *proc = link_proc_newest(); proc != nullptr; proc = proc->next) {
            if (proc->request != nullptr) {
                still_there.insert(proc->age);
            }
        }
        if (std::includes(still_there.begin(), still_there.end(), orphan_ages_.begin(), orphan_ages_.end())) {
            return;
        }
        ++seen_["procedure ends whose session was lost"];
        for (auto &[session, one] : seats_) {
            one.disturbed = true;
        }
    }

    // At most two sessions, by ascending reference, and none without an owner's death being watched.
    void check_sessions()
    {
        uint32_t count = 0;
        uint32_t last = 0;
        std::set<uint32_t> now;
        std::set<uint32_t> watched;
        for (const fake::Monitor &monitor : fake::monitors()) {
            watched.insert(monitor.id);
        }
        for (const IemliSession *s = iemli_session_first(); s != nullptr; s = s->next) {
            expect(s->server_conn_ref > last, "the sessions are sorted by reference");
            expect(watched.count(s->monitor_ref) == 1, "the death of a session's client is watched for");
            last = s->server_conn_ref;
            now.insert(s->server_conn_ref);
            seats_.try_emplace(s->server_conn_ref, seat{s->client_mbox});
            ++count;
        }
        expect(count <= 2, "at most 2 sessions");
        if (count > 0) {
            expect(!service_lost_, "no session outlives a lost service");
        }
        for (const auto &[session, one] : seats_) {
            if (now.count(session) == 0) {
                check_end(session, one);
            }
        }
        std::erase_if(seats_, [&](const auto &one) { return now.count(one.first) == 0; });
        std::erase_if(dead_, [&](uint32_t client) {
            return std::none_of(seats_.begin(), seats_.end(),
                                [=](const auto &one) { return one.second.client == client; });
        });
        ++seen_["steps with " + text(count) + " sessions"];
    }

    // A session ends by its term, its client's death or with the service, and takes with it what it has queued; with
    // the service also what is under way.
    void check_end(uint32_t session, const seat &one)
    {
        expect(foreign_ || service_lost_ || service_back_ || ended_by_term_.count(session) > 0 ||
                   dead_.count(one.client) > 0,
               "session " + text(session) + " ends for a reason");
        for (auto &[key, what] : asks_) {
            if (what.state == OPEN && what.session == session &&
                (one.disturbed || service_lost_ || service_back_ || queued_.count(key) > 0)) {
                what.state = DISCARDED;
            }
        }
    }

    // Exactly one answer where it is promised. Whatever is not queued is answered at once. A request of a living
    // session is answered, or waits in its queue, or is the one under way, and then a procedure has it. A session that
    // ends takes what it has queued with it; a term is answered all the same.
    void check_requests()
    {
        queued_.clear();
        std::map<uint32_t, unsigned> under_way; // by session
        for (const IemliSession *s = iemli_session_first(); s != nullptr; s = s->next) {
            for (const IemliQueuedRequest *entry = s->queue_head; entry != nullptr; entry = entry->next) {
                queued_.insert({s->client_mbox, iemli_header_of(entry->msg)->procedure_ref});
            }
        }
        std::erase_if(asks_, [](const auto &one) { return one.second.state == ANSWERED; });
        for (auto &[key, one] : asks_) {
            if (one.state == OPEN) {
                check_open(key, one, &under_way);
            }
        }
        unsigned busy = 0;
        bool disturbed = false;
        for (const IemliSession *s = iemli_session_first(); s != nullptr; s = s->next) {
            disturbed = disturbed || seats_.at(s->server_conn_ref).disturbed;
            busy += s->busy ? 1 : 0;
        }
        for (const IemliSession *s = iemli_session_first(); s != nullptr && !disturbed; s = s->next) {
            expect(under_way[s->server_conn_ref] == (s->busy ? 1u : 0u),
                   "a session waits exactly while one request of it is under way");
            expect(!s->busy || has_procedure(s->server_conn_ref), "who waits, waits for a procedure that is there");
        }
        expect(disturbed || busy <= 1, "one request at a time is with the lower layers");
    }

    void check_open(const ask_key &key, const ask &one, std::map<uint32_t, unsigned> *under_way)
    {
        const std::string name = std::string(iemli_msg_to_string(one.msgno)) + " " + text(key.second);
        const bool may_wait = one.msgno == IEMLI_TERM_SERVICE_REQ || one.msgno == IEMLI_CREATE_INTER_ME_LINK_REQ ||
                              one.msgno == IEMLI_UPDATE_INTER_ME_LINK_REQ ||
                              one.msgno == IEMLI_DELETE_INTER_ME_LINK_REQ;
        const auto found = seats_.find(one.session);
        if (found != seats_.end() && found->second.disturbed) {
            return;
        }
        if (!may_wait || one.session == 0) {
            fail(name + " was not answered at once");
        } else if (found == seats_.end() || found->second.client != key.first) {
            fail(name + " went with its session, but nothing ended that");
        } else if (queued_.count(key) == 0) {
            expect(one.msgno != IEMLI_TERM_SERVICE_REQ, name + " is lost");
            ++(*under_way)[one.session];
        }
    }

    static bool has_procedure(uint32_t server_conn_ref)
    {
        for (const iml_link_proc *proc = link_proc_newest(); proc != nullptr; proc = proc->next) {
            if (proc->request != nullptr && proc->request->server_conn_ref == server_conn_ref) {
                return true;
            }
        }
        return false;
    }

    // The table is sorted by reference, its lookups agree with it, and every link has an owner, but one that was made
    // by a procedure whose session was lost with a service.
    void check_table()
    {
        uint32_t last = 0;
        uint32_t count = 0;
        for (const iml_link *link = iml_link_first(); link != nullptr; link = link->next) {
            expect(link->link_ref > last, "the links are sorted by reference");
            last = link->link_ref;
            ++count;
            const std::string name = "link " + text(link->link_ref);
            expect(iml_link_look_up(link->link_ref) == link, name + " is found by its reference");
            expect(link->supervision_session_id == 0 || iml_link_find_by_session(link->supervision_session_id) == link,
                   name + " is found by its session");
            if (iemli_session_find(link->connection_ref) == nullptr) {
                expect(foreign_ || service_back_ || ownerless_.count(link->link_ref) > 0 ||
                           orphans_.count(link->connection_ref) > 0,
                       name + " has an owner");
                ownerless_.insert(link->link_ref);
            }
            expect(link->rtt_samples.count <= RTT_MAX_SAMPLES, name + " keeps at most 60 samples");
            expect(link->rtt_enabled == 0 || link->samples_since_report < link->rtt.batchSize,
                   name + " reports a batch when it is full");
        }
        expect(count == iml_link_count(), "the links are counted");
        std::erase_if(ownerless_, [](uint32_t ref) { return iml_link_look_up(ref) == nullptr; });
        ++seen_["steps with " + std::string(count < 4 ? text(count) : "4 or more") + " links"];
    }

    // Open sessions of the library are what the links say, with the link's addresses and VLAN: nobody pings for a link
    // that is no more, but for one that went with port control. A link is enabled only while somebody pings it, but
    // after a restart for other RTT settings that failed.
    void check_supervision()
    {
        std::set<uint32_t> of_links;
        for (const iml_link *link = iml_link_first(); link != nullptr; link = link->next) {
            for (const uint32_t id : ids_of(link)) {
                expect(of_links.insert(id).second, "a session belongs to one link");
                check_session(link, id);
            }
            const std::string name = "link " + text(link->link_ref);
            const bool running = link->supervision_state == SUPERVISION_RUNNING;
            expect(running == (link->supervision_session_id != 0), name + " is supervised when its state says so");
            if (restart_may_fail_ && !running) {
                unwatched_.insert(link->link_ref);
            } else if (running || link->status == IML_LINK_DISABLED) {
                unwatched_.erase(link->link_ref);
            }
            expect(foreign_ || link->status == IML_LINK_DISABLED || running || unwatched_.count(link->link_ref) > 0,
                   name + " is enabled, and somebody pings it");
        }
        for (const auto &[id, session] : fake::sessions()) {
            if (of_links.count(id) == 0 && given_up_.count(id) == 0) {
                expect(foreign_ || iepcsi_get_port_list() == nullptr,
                       "session " + text(id) + " of the library belongs to a link");
                given_up_.insert(id);
            }
        }
    }

    static std::set<uint32_t> ids_of(const iml_link *link)
    {
        std::set<uint32_t> ids;
        ids.insert(link->supervision_session_id);
        for (uint32_t i = 0; i < link->keep_alive_count; ++i) {
            ids.insert(link->keep_alive_sessions[i].session_id);
        }
        ids.erase(0);
        return ids;
    }

    void check_session(const iml_link *link, uint32_t id)
    {
        const std::string name = "session " + text(id) + " of link " + text(link->link_ref);
        const auto found = fake::sessions().find(id);
        if (found == fake::sessions().end()) {
            return fail(name + " runs in the library");
        }
        const supervision_params &params = found->second.params;
        expect(memcmp(params.dest_mac, link->link_data->farEndCpmMac.byte, 6) == 0, name + " pings the far end");
        expect((params.vlantag & 0xFFF) == link->link_data->vlanId, name + " pings in the link's VLAN");
        expect(params.sup_type ==
                   (id == link->supervision_session_id ? SUPERVISION_TYPE_LINK : SUPERVISION_TYPE_KEEP_ALIVE),
               name + " is of its kind");
    }

    // PMI holds the VLAN of every link on its port, EMI its endpoints, and nothing else, in every VLAN for which
    // nothing is under way. A refused removal, a dead service or a link that could not be made at the very end (no
    // session, no port) may leave something there; what is there then is the measure from then on.
    void check_holdings()
    {
        std::set<uint32_t> moving;
        for (const iml_link_proc *proc = link_proc_newest(); proc != nullptr; proc = proc->next) {
            moving.insert(proc->link_data->vlanId);
        }
        std::map<held_key, int> difference = held_;
        for (const auto &[key, count] : needed()) {
            difference[key] -= count;
        }
        const bool ports_known = iepcsi_get_port_list() != nullptr; // else nobody can say what a link needs
        for (const auto &[key, count] : difference) {
            int &before = left_[key];
            if (!ports_known) {
                excuse(key.first);
                continue;
            }
            if (count == before || moving.count(key.first) > 0 || key.first == PORT_ENDPOINT_VLAN) {
                continue;
            }
            if (unsure_.count(key.first) == 0) {
                fail("VLAN " + text(key.first) + ": " + (key.second.size() == 20 ? "PMI" : "EMI") + " holds " +
                     std::to_string(count - before) + " more than its links need of " + fake::to_hex(key.second));
            }
            before = count;
        }
        if (ports_known) {
            std::erase_if(unsure_, [&](uint32_t vlan) { return moving.count(vlan) == 0; });
        }
        seen_["VLANs in motion"] += moving.size();
    }

    // What a link's owner was told last is what the table says.
    void check_told()
    {
        for (const iml_link *link = iml_link_first(); link != nullptr; link = link->next) {
            const IemliSession *owner = iemli_session_find(link->connection_ref);
            if (owner == nullptr || ownerless_.count(link->link_ref) > 0 || orphans_.count(link->connection_ref) > 0) {
                continue;
            }
            const auto told = told_.find({owner->client_mbox, link->link_ref});
            expect(told != told_.end() && told->second.first == link->status &&
                       (link->status == IML_LINK_ENABLED || told->second.second == link->disabled_reason),
                   "the owner of link " + text(link->link_ref) + " was told its status");
        }
    }

    // Every message is queued, waits with a monitor or a name, or in a session's queue; or it is one of those that are
    // kept on purpose. The thread is in its own namespace, and no descriptor of one is open.
    void check_leaks()
    {
        size_t waiting = fake::queued() + fake::waiting_names().size();
        for (const fake::Monitor &monitor : fake::monitors()) {
            waiting += monitor.bytes.empty() ? 0 : 1;
        }
        for (const IemliSession *s = iemli_session_first(); s != nullptr; s = s->next) {
            for (const IemliQueuedRequest *entry = s->queue_head; entry != nullptr; entry = entry->next) {
                ++waiting;
            }
        }
        expect(fake::live_messages() == waiting, "every message is somewhere, or was freed or sent");
        expect(fake::current_netns().empty(), "the thread is in its own namespace");
        expect(foreign_ || fake::open_netns_fds() == 0, "no namespace is open"); // one that could not be entered stays
    }

    // ---- What the next step is measured by ----

    void remember()
    {
        if (std::any_of(seats_.begin(), seats_.end(), [](const auto &one) { return one.second.disturbed; })) {
            excuse_everything_under_way(); // there may be two for one link
        }
        orphans_.clear();
        orphan_ages_.clear();
        for (const iml_link_proc *proc = link_proc_newest(); proc != nullptr; proc = proc->next) {
            if (proc->request != nullptr && !is_asked(proc->request)) {
                orphans_.insert(proc->request->server_conn_ref);
                orphan_ages_.insert(proc->age);
                // Its link may have changed meanwhile, or another one have taken the link's reference, and its owner's.
                excuse(proc->link_data->vlanId);
                const iml_link *link = iml_link_look_up(proc->request->link_ref);
                if (link != nullptr) {
                    excuse(link->link_data->vlanId);
                }
                ++seen_["steps with a procedure whose session was lost"];
            }
        }
    }

    // A living session waits for it.
    bool is_asked(const IemliPendingRequest *request) const
    {
        const IemliSession *session = iemli_session_find(request->server_conn_ref);
        if (session == nullptr) {
            return false;
        }
        const auto found = asks_.find({session->client_mbox, request->procedure_ref});
        return found != asks_.end() && found->second.state == OPEN;
    }

    std::string step_;
    std::string broken_;
    std::map<std::string, uint64_t> seen_;

    std::map<ask_key, ask> asks_;
    std::set<uint32_t> dead_;          // clients whose session still stands
    std::set<uint32_t> ended_by_term_; // sessions, in this step
    std::set<ask_key> queued_;         // before this step
    std::map<uint32_t, seat> seats_;   // by server_conn_ref
    std::set<uint32_t> orphans_;       // server_conn_ref of lost sessions whose procedures are still open
    std::set<uint64_t> orphan_ages_;   // of those procedures
    std::set<uint32_t> ownerless_;     // links
    std::map<std::pair<uint32_t, uint32_t>, std::pair<uint32_t, uint32_t>> told_; // client, link: status, reason

    std::map<held_key, int> held_; // by PMI and EMI, by VLAN
    std::map<held_key, int> left_; // of that, what no link needs
    std::set<std::pair<uint32_t, uint32_t>> sent_while_answering_;
    std::set<uint32_t> unsure_;

    std::set<uint32_t> given_up_;  // sessions of the library
    std::set<uint32_t> unwatched_; // links

    bool foreign_ = false;      // for ever
    bool service_lost_ = false; // in this step, as what follows
    bool service_back_ = false;
    bool restart_may_fail_ = false;
    bool answering_ = false;
};

} // namespace daemon_test
