// The way of a frame from the socket to the result: what the kernel says of it (address, auxiliary data with the tag,
// time stamp), the answer that is read from it, and the engine with some sessions under a clock that the input drives.
// However frames come: a result belongs to a session that runs, there is at most one per request, and a round trip
// is no longer than the time since the request.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <map>
#include <memory>
#include <sys/socket.h>

#include "input.hpp"
#include "supervision/answer.hpp"

namespace
{

using namespace supervision;
using fuzz::Input;
using fuzz::require;

constexpr size_t FRAME_BYTES = 64;
constexpr int64_t SECOND = 1'000'000'000;
constexpr int64_t REAL_START = 1'700'000'000 * SECOND;
constexpr uint32_t DOMAIN = 1;
constexpr size_t SESSIONS = 6;

struct tally {
    uint64_t requests = 0;
    uint64_t results = 0;
};

int64_t monotonic;
int64_t real;
std::map<uint32_t, tally> tallies; // of the sessions that run

void take_result(const supervision_rtt *rtt, uint32_t id, uint32_t result)
{
    const auto found = tallies.find(id);
    require(found != tallies.end(), "a result belongs to a session that runs");
    require(result <= SUPERVISION_LOST, "a result is one of the four");
    require(++found->second.results <= found->second.requests, "at most one result per request");
    if (rtt != nullptr) {
        require(rtt->nsec < SECOND, "nanoseconds are a fraction of a second");
        require(rtt->sec * SECOND + rtt->nsec <= real - REAL_START,
                "a round trip is no longer than all the time there was");
    }
}

clocks read_clocks(void * /*context*/) { return {monotonic, real}; }

class Story
{
public:
    explicit Story(Input input) : input_(input)
    {
        monotonic = SECOND;
        real = REAL_START + SECOND;
        tallies.clear();
        engine_set_key(engine_, {1, 2});
        require(packet::batch_init(&batch_, FRAME_BYTES), "memory for a batch");
    }
    Story(const Story &) = delete;
    Story &operator=(const Story &) = delete;
    ~Story() { packet::batch_free(&batch_); }

    void play()
    {
        while (input_.more()) {
            step();
        }
        for (size_t i = 0; i < SESSIONS; ++i) {
            remove(i);
        }
        require(engine_deadline(engine_) == NEVER, "an engine without sessions wants nothing");
    }

private:
    void step()
    {
        switch (input_.pick(8)) {
        case 0:
            return add(input_.pick(SESSIONS));
        case 1:
            return remove(input_.pick(SESSIONS));
        case 2:
            return pass(static_cast<int64_t>(input_.half()) * 1'000'000);
        case 3:
            return run_when_due();
        case 4:
            real += static_cast<int64_t>(input_.half()) * 1'000'000; // somebody sets the clock
            return;
        default:
            return frame();
        }
    }

    void add(size_t i)
    {
        if (sessions_[i] != nullptr) {
            return;
        }
        const uint8_t kind = input_.byte();
        auto s = std::make_unique<session>();
        s->id = static_cast<uint32_t>(++last_id_);
        s->key = key_of(i, (kind & 1) != 0 ? 100 : 0);
        s->ether_type = 0xAEFE;
        s->frame_size = static_cast<uint16_t>(38 + kind * 5);
        s->tagged = s->key.vlan != 0;
        s->tag = {to_be16(0x8100), to_be16(0xE064)};
        s->type = (kind & 2) != 0 ? SUPERVISION_TYPE_LINK : SUPERVISION_TYPE_KEEP_ALIVE;
        s->interval = 1 + kind % 5;
        s->callback = take_result;
        tallies[s->id] = {};
        engine_add(engine_, s.get(), monotonic);
        sessions_[i] = std::move(s);
    }

    // The first two share their key: the engine calls them twins.
    static session_key key_of(size_t i, uint16_t vlan)
    {
        const auto last = static_cast<uint8_t>(i < 2 ? 1 : i);
        return {
            DOMAIN, 3, {{2, 0, 0, 0, 0, 1}}, {{2, 0, 0, 0, 0, last}}, vlan, tag_protocol(vlan != 0, ETH_P_8021Q, vlan)};
    }

    void remove(size_t i)
    {
        if (sessions_[i] != nullptr) {
            engine_remove(engine_, sessions_[i].get());
            tallies.erase(sessions_[i]->id);
            sessions_[i].reset();
        }
    }

    static void pass(int64_t time)
    {
        monotonic += time;
        real += time;
    }

    void run_when_due()
    {
        const int64_t due = engine_deadline(engine_);
        if (due != NEVER && due > monotonic) {
            pass(due - monotonic);
        }
        const engine_io io{this, read_clocks, send};
        engine_run(engine_, monotonic, io);
    }

    static int send(void *context, session &s, const uint8_t *frame, size_t length)
    {
        auto *story = static_cast<Story *>(context);
        require(length == s.frame_size + (s.tagged ? sizeof(ecpri::vlan_tag) : 0), "a request has its session's size");
        story->last_request_.assign(frame, frame + length);
        story->last_tagged_ = s.tagged;
        ++tallies.at(s.id).requests;
        return story->input_.pick(8) == 7 ? ENETDOWN : 0;
    }

    // An answer to the last request, or bytes; then some of it is changed.
    std::vector<uint8_t> frame_bytes(uint8_t how)
    {
        if ((how & 1) != 0 || last_request_.empty()) {
            return input_.bytes(input_.byte());
        }
        std::vector<uint8_t> answer = last_request_;
        if (last_tagged_) {
            answer.erase(answer.begin() + 12, answer.begin() + 16);
        }
        std::swap_ranges(answer.begin(), answer.begin() + 6, answer.begin() + 6);
        answer[19] = ecpri::ACTION_RESPONSE;
        if ((how & 2) != 0) {
            answer[input_.pick(answer.size())] ^= input_.byte();
        }
        return answer;
    }

    void frame()
    {
        const uint8_t how = input_.byte();
        const std::vector<uint8_t> bytes = frame_bytes(how);
        const size_t kept = bytes.size() < FRAME_BYTES ? bytes.size() : FRAME_BYTES;
        std::copy(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(kept), batch_.bytes);
        batch_.addresses[0].sll_ifindex = (how & 4) != 0 ? input_.byte() % 4 : 3;
        msghdr &h = batch_.headers[0].msg_hdr;
        h = {};
        h.msg_control = batch_.control[0];
        h.msg_controllen = sizeof batch_.control[0];
        batch_.headers[0].msg_len = static_cast<unsigned>(bytes.size() + ((how & 8) != 0 ? input_.byte() : 0));
        h.msg_controllen = put_control(h, how);
        packet::received r = packet::describe(&batch_, 0);
        // The same bytes in a block that ends with them, so that a read behind is seen.
        const std::unique_ptr<uint8_t[]> exact(new uint8_t[kept]);
        r.available = kept;
        memcpy(exact.get(), batch_.bytes, kept);
        r.bytes = exact.get();
        answer a{};
        if (read_answer(r, DOMAIN, &a)) {
            engine_answer(engine_, a, {monotonic, real});
        }
    }

    size_t put_control(msghdr &h, uint8_t how)
    {
        size_t used = 0;
        cmsghdr *c = CMSG_FIRSTHDR(&h);
        if ((how & 16) == 0) {
            tpacket_auxdata aux{};
            aux.tp_status = (how & 32) == 0 ? TP_STATUS_VLAN_VALID | TP_STATUS_VLAN_TPID_VALID : input_.half();
            aux.tp_vlan_tci = (how & 32) == 0 ? 0xE064 : input_.half();
            aux.tp_vlan_tpid = (how & 32) == 0 ? ETH_P_8021Q : input_.half();
            *c = {CMSG_LEN(sizeof aux), SOL_PACKET, PACKET_AUXDATA};
            memcpy(CMSG_DATA(c), &aux, sizeof aux);
            used += CMSG_SPACE(sizeof aux);
            c = reinterpret_cast<cmsghdr *>(batch_.control[0] + used);
        }
        if ((how & 64) == 0) {
            const int64_t at = (how & 128) == 0 ? real : static_cast<int64_t>(input_.word()) << 32 | input_.word();
            const timespec stamp = {at / SECOND, static_cast<decltype(timespec::tv_nsec)>(at % SECOND)};
            *c = {CMSG_LEN(sizeof stamp), SOL_SOCKET, SCM_TIMESTAMPNS};
            memcpy(CMSG_DATA(c), &stamp, sizeof stamp);
            used += CMSG_SPACE(sizeof stamp);
        }
        return used;
    }

    Input input_;
    engine engine_;
    packet::batch batch_{};
    std::unique_ptr<session> sessions_[SESSIONS];
    uint64_t last_id_ = 0;
    std::vector<uint8_t> last_request_;
    bool last_tagged_ = false;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Story(Input(data, size)).play();
    return 0;
}
