#include "neighbours.hpp"

#include <cstdlib>
#include <cstring>
#include <deque>
#include <utility>

#include "clients/aasi_client.hpp"
#include "clients/iepcsi_client.hpp"
#include "manager/links/link_procedures.hpp"
#include "manager/links/rtt.hpp"

namespace
{

struct State {
    std::deque<link_answer> endings;
    std::deque<IemliPendingRequest *> open;
    bool delete_opens = true;
    bool rtt_enable_result = true;
    std::deque<eth_port> ports;
};
State state;

void note(const std::string &call) { fake::calls().push_back(call); }

std::string number(uint32_t value) { return std::to_string(value); }

link_answer start(IemliPendingRequest **request)
{
    if (!state.endings.empty()) {
        const link_answer ending = state.endings.front();
        state.endings.pop_front();
        return ending;
    }
    state.open.push_back(*request);
    *request = nullptr;
    return LINK_NO_ANSWER_YET;
}

IemliPendingRequest *take_oldest()
{
    if (state.open.empty()) {
        ADD_FAILURE() << "no procedure is open";
        return static_cast<IemliPendingRequest *>(calloc(1, sizeof(IemliPendingRequest)));
    }
    IemliPendingRequest *request = state.open.front();
    state.open.pop_front();
    return request;
}

std::string hex_of(const void *data, size_t size)
{
    const auto *bytes = static_cast<const uint8_t *>(data);
    return fake::to_hex(Bytes(bytes, bytes + size));
}

} // namespace

namespace neighbours
{

void end_at_start(const link_answer &answer) { state.endings.push_back(answer); }

void confirm(uint32_t link_ref)
{
    IemliPendingRequest *request = take_oldest();
    iemli_link_procedure_cfm(link_ref, &request);
    EXPECT_EQ(request, nullptr);
}

void reject(uint32_t reason)
{
    IemliPendingRequest *request = take_oldest();
    iemli_link_procedure_rej(reason, &request);
    EXPECT_EQ(request, nullptr);
}

size_t open_procedures() { return state.open.size(); }
IemliPendingRequest *open_request() { return state.open.front(); }
void set_delete_opens(bool opens) { state.delete_opens = opens; }
void set_rtt_enable_result(bool result) { state.rtt_enable_result = result; }

void add_port(const char *iepcsi_name, const char *mac)
{
    eth_port port = {};
    strncpy(port.port_name, iepcsi_name, sizeof port.port_name - 1);
    memcpy(port.mac.byte, Builder().mac(mac).bytes.data(), sizeof port.mac.byte);
    state.ports.push_back(port);
    for (size_t i = 1; i < state.ports.size(); ++i) {
        state.ports[i - 1].next = &state.ports[i];
    }
}

void reset()
{
    for (IemliPendingRequest *request : state.open) {
        free(request);
    }
    state = State();
    manager_state_reset();
    set_manager_state(KAP_VORN_INITIATED);
}

} // namespace neighbours

// ---- The modules that are scripted ----

link_answer iml_link_create(const IemliLinkData *data, IemliPendingRequest **request)
{
    note("create " + hex_of(data, static_cast<size_t>(iemli_link_data_size(data->numberOfAppLinks))));
    return start(request);
}

link_answer iml_link_update(IemliPendingRequest **request, uint32_t number_of_app_links, const IemliAppLink *app_links)
{
    note("update " + number((*request)->link_ref) + " " +
         hex_of(app_links, number_of_app_links * sizeof(IemliAppLink)));
    return start(request);
}

bool iml_link_delete(uint32_t link_ref, uint32_t connection_ref, IemliPendingRequest **request)
{
    note("delete " + number(link_ref) + " of " + number(connection_ref) + (request == nullptr ? " unasked" : ""));
    if (request == nullptr) {
        iml_link *link = iml_link_find_owned(link_ref, connection_ref);
        iml_link_remove(link);
        iml_link_free(link);
        return true;
    }
    if (!state.delete_opens) {
        return false;
    }
    state.open.push_back(*request);
    *request = nullptr;
    return true;
}

void iml_link_delete_all_of_connection(uint32_t connection_ref)
{
    iml_link *next = nullptr;
    for (iml_link *link = iml_link_first(); link != nullptr; link = next) {
        next = link->next;
        if (link->connection_ref == connection_ref) {
            iml_link_delete(link->link_ref, connection_ref, nullptr);
        }
    }
}

void aasi_send_path_create(const aasi_path &path) { note("path create " + number(path.link_ref)); }
void aasi_send_path_update(const aasi_path &path) { note("path update " + number(path.link_ref)); }
void aasi_send_path_delete(const aasi_path &path) { note("path delete " + number(path.link_ref)); }
void aasi_send_path_info(uint32_t link_ref, uint32_t, uint32_t, uint32_t, uint32_t)
{
    note("path info " + number(link_ref));
}

bool rtt_enable(uint32_t link_ref, const rtt_settings &settings)
{
    note("rtt enable " + number(link_ref) + " " + number(settings.batchSize) + "/" + number(settings.measureInterval) +
         "/" + number(settings.frameSize));
    return state.rtt_enable_result;
}

void rtt_disable(uint32_t link_ref) { note("rtt disable " + number(link_ref)); }

const eth_port *iepcsi_get_port_list() { return state.ports.empty() ? nullptr : &state.ports.front(); }

bool iepcsi_fetch_port_data(const char *port_name, eth_port *out)
{
    for (const eth_port &port : state.ports) {
        if (strcmp(port.port_name, port_name) == 0) {
            *out = port;
            return true;
        }
    }
    return false;
}

bool iepcsi_find_port_vlan(const eth_port *, uint16_t, const port_vlan **) { return false; }

// ---- Messages, byte by byte ----

Bytes header(uint32_t msgno, uint32_t procedure_ref, uint32_t connection_ref)
{
    return Builder().u32(msgno).u32(procedure_ref).u32(connection_ref);
}

Bytes with_u32(Bytes message, uint32_t value) { return Builder{std::move(message)}.u32(value); }

Bytes app_link_array(const std::vector<AppLink> &apps)
{
    Builder builder;
    for (const AppLink &app : apps) {
        builder.mac(app.near_end).mac(app.far_end);
    }
    return builder;
}

// One slot is there even without an app link.
static Bytes app_link_slots(const std::vector<AppLink> &apps)
{
    return apps.empty() ? Bytes(12) : app_link_array(apps);
}

static Bytes joined(Bytes front, const Bytes &back)
{
    front.insert(front.end(), back.begin(), back.end());
    return front;
}

Bytes link_data(const Link &link)
{
    Builder builder;
    builder.u8(static_cast<uint8_t>(link.mp_id)).mac(link.cpm).text(link.port, 17).u16(link.vlan).zeros(2);
    builder.u32(static_cast<uint32_t>(link.apps.size()));
    return joined(builder, app_link_slots(link.apps));
}

Bytes init_req(uint32_t procedure_ref, uint32_t connection_ref, uint32_t pv_1, uint32_t pv_2, uint32_t pv_3)
{
    return Builder{header(0x1B0E03, procedure_ref, connection_ref)}.u32(pv_1).u32(pv_2).u32(pv_3);
}

Bytes term_req(uint32_t procedure_ref, uint32_t connection_ref)
{
    return header(0x1B0E06, procedure_ref, connection_ref);
}

Bytes create_req(uint32_t procedure_ref, uint32_t connection_ref, const Link &link)
{
    return joined(header(0x1B0E0B, procedure_ref, connection_ref), link_data(link));
}

Bytes update_req(uint32_t procedure_ref, uint32_t connection_ref, uint32_t link_ref, const std::vector<AppLink> &apps)
{
    Builder builder{header(0x1B0E0E, procedure_ref, connection_ref)};
    builder.u32(link_ref).u32(static_cast<uint32_t>(apps.size()));
    return joined(builder, app_link_slots(apps));
}

Bytes delete_req(uint32_t procedure_ref, uint32_t connection_ref, uint32_t link_ref)
{
    return with_u32(header(0x1B0E11, procedure_ref, connection_ref), link_ref);
}

Bytes get_mac_req(uint32_t procedure_ref, uint32_t connection_ref, unsigned mp_id, const std::string &name_bytes)
{
    Builder builder{header(0x1B0E08, procedure_ref, connection_ref)};
    return builder.u8(static_cast<uint8_t>(mp_id)).text(name_bytes, name_bytes.size());
}

Bytes enable_rtt_req(uint32_t procedure_ref, uint32_t connection_ref, uint32_t link_ref, uint16_t batch,
                     uint16_t interval, uint16_t frame)
{
    Builder builder{header(0x1B0E14, procedure_ref, connection_ref)};
    return builder.u32(link_ref).u16(batch).u16(interval).u16(frame).zeros(2);
}

Bytes disable_rtt_req(uint32_t procedure_ref, uint32_t connection_ref, uint32_t link_ref)
{
    return with_u32(header(0x1B0E17, procedure_ref, connection_ref), link_ref);
}

Bytes rej(uint32_t msgno, uint32_t procedure_ref, uint32_t connection_ref, uint32_t reason)
{
    return with_u32(header(msgno, procedure_ref, connection_ref), reason);
}

// ---- The fixture ----

void IemliTest::SetUp()
{
    PlatformTest::SetUp();
    neighbours::reset();
    neighbours::add_port("IDLA1", "02:00:00:00:00:A1");
    ASSERT_TRUE(iemli_publish());
    fake::calls().clear();
    fake::traces().clear();
}

void IemliTest::TearDown()
{
    iemli_server_forget_all();
    iml_link_table_clear();
    neighbours::reset();
    PlatformTest::TearDown();
}

bool IemliTest::offer(uint32_t from, const Bytes &message)
{
    return fake::dispatch(iemli_server_dispatch, from, message);
}

uint32_t IemliTest::open_session(uint32_t client, uint32_t client_conn_ref)
{
    EXPECT_TRUE(offer(client, init_req(1, client_conn_ref, 1, 0, 0)));
    const fake::Sent cfm = fake::take_sent();
    EXPECT_EQ(cfm.msgno(), 0x1B0E04U);
    uint32_t server_conn_ref = 0;
    memcpy(&server_conn_ref, cfm.bytes.data() + 8, 4);
    fake::traces().clear();
    fake::calls().clear();
    return server_conn_ref;
}

void IemliTest::open_both()
{
    ASSERT_EQ(open_session(CLIENT_A, A_REF), 1U);
    ASSERT_EQ(open_session(CLIENT_B, B_REF), 2U);
}

uint32_t IemliTest::add_link(uint32_t owner, const Link &link)
{
    const Bytes bytes = link_data(link);
    auto *data = static_cast<IemliLinkData *>(malloc(bytes.size()));
    memcpy(data, bytes.data(), bytes.size());
    iml_link *record = iml_link_alloc(data);
    record->connection_ref = owner;
    iml_link_insert(record);
    return record->link_ref;
}

void IemliTest::keep_b_busy()
{
    ASSERT_TRUE(offer(CLIENT_B, create_req(70, 2, {.cpm = "02:00:00:00:0C:70", .vlan = 4000})));
    ASSERT_EQ(neighbours::open_procedures(), 1U);
    fake::traces().clear();
    fake::calls().clear();
}

void IemliTest::expect_sent(uint32_t to, const Bytes &message)
{
    const fake::Sent sent = fake::take_sent();
    EXPECT_EQ(sent.to, to);
    EXPECT_EQ(sent.from, 0xFFF00000U);
    EXPECT_EQ(fake::to_hex(sent.bytes), fake::to_hex(message));
}

void IemliTest::expect_nothing_sent() { EXPECT_TRUE(fake::sent().empty()) << fake::to_hex(fake::sent().front().bytes); }

void IemliTest::expect_traces(const std::vector<Trace> &expected)
{
    EXPECT_EQ(std::exchange(fake::traces(), {}), expected);
}

std::vector<std::string> IemliTest::traces_of(uint32_t level)
{
    std::vector<std::string> texts;
    for (const Trace &trace : fake::traces()) {
        if (trace.level == level) {
            texts.push_back(trace.text);
        }
    }
    return texts;
}

std::vector<std::string> IemliTest::calls() { return std::exchange(fake::calls(), {}); }

void IemliTest::die(uint32_t client)
{
    fake::kill(client);
    while (itc_msg *msg = itc_receive(nullptr, 0, ITC_FROM_ANY)) {
        EXPECT_TRUE(iemli_server_dispatch(msg));
        itc_free(&msg);
    }
}
