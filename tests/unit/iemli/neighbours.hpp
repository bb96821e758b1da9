// The IEMLI server and the link list with the link table they really use, and with the modules behind it scripted: the
// link procedures, RTT and the port list of IEPCSI. A test decides when a procedure answers, also
// while it is being started.
//
// What the neighbours are asked for goes into fake::calls(), in one order with what the platform is asked for.
#pragma once

#include <string>
#include <vector>

#include "base/daemon_state.hpp"
#include "fake_platform.hpp"
#include "iemli/iemli_server.hpp"
#include "manager/table/link_table.hpp"

namespace neighbours
{

// The next create or update that is started is over at once, with this answer.
void end_at_start(const link_answer &answer);
// The oldest open procedure answers.
void confirm(uint32_t link_ref);
void reject(uint32_t reason);
size_t open_procedures();
// The record that the oldest open procedure holds.
IemliPendingRequest *open_request();
// Whether a delete with a request opens a procedure.
void set_delete_opens(bool opens);

void set_rtt_enable_result(bool result);
void add_port(const char *iepcsi_name, const char *mac);

void reset();

} // namespace neighbours

using fake::Builder;
using fake::Bytes;
using fake::Trace;

struct AppLink {
    const char *near_end;
    const char *far_end;
};

// A link that every check lets pass.
struct Link {
    unsigned mp_id = 5;
    const char *cpm = "02:00:00:00:0C:01";
    std::string port = "IDL_A1";
    uint16_t vlan = 100;
    std::vector<AppLink> apps = {};
};

inline const AppLink APP_1 = {"02:00:00:00:01:01", "02:00:00:00:02:01"};
inline const AppLink APP_2 = {"02:00:00:00:01:02", "02:00:00:00:02:02"};
inline const AppLink APP_3 = {"02:00:00:00:01:03", "02:00:00:00:02:03"};

inline constexpr uint32_t CLIENT_A = 0x00020001;
inline constexpr uint32_t CLIENT_B = 0x00030001;
inline constexpr uint32_t CLIENT_C = 0x00040001;
// What the clients call their sessions.
inline constexpr uint32_t A_REF = 0xA0;
inline constexpr uint32_t B_REF = 0xB0;

Bytes header(uint32_t msgno, uint32_t procedure_ref, uint32_t connection_ref);
Bytes with_u32(Bytes message, uint32_t value);
Bytes link_data(const Link &link);
Bytes app_link_array(const std::vector<AppLink> &apps);

Bytes init_req(uint32_t procedure_ref, uint32_t connection_ref, uint32_t pv_1, uint32_t pv_2, uint32_t pv_3);
Bytes term_req(uint32_t procedure_ref, uint32_t connection_ref);
Bytes create_req(uint32_t procedure_ref, uint32_t connection_ref, const Link &link);
Bytes update_req(uint32_t procedure_ref, uint32_t connection_ref, uint32_t link_ref, const std::vector<AppLink> &apps);
Bytes delete_req(uint32_t procedure_ref, uint32_t connection_ref, uint32_t link_ref);
Bytes get_mac_req(uint32_t procedure_ref, uint32_t connection_ref, unsigned mp_id, const std::string &name_bytes);
Bytes enable_rtt_req(uint32_t procedure_ref, uint32_t connection_ref, uint32_t link_ref, uint16_t batch,
                     uint16_t interval, uint16_t frame);
Bytes disable_rtt_req(uint32_t procedure_ref, uint32_t connection_ref, uint32_t link_ref);
Bytes rej(uint32_t msgno, uint32_t procedure_ref, uint32_t connection_ref, uint32_t reason);

// Manager initiated, one port "IDLA1" with MAC 02:00:00:00:00:A1, the service published, no session.
class IemliTest : public fake::PlatformTest
{
protected:
    void SetUp() override;
    void TearDown() override;

    static bool offer(uint32_t from, const Bytes &message);
    // Opens a session (its answer and traces are taken) and returns its server_conn_ref.
    static uint32_t open_session(uint32_t client, uint32_t client_conn_ref);
    // Sessions 1 of client A and 2 of client B.
    static void open_both();
    // A link in the table, without a procedure. Returns its link_ref.
    static uint32_t add_link(uint32_t owner, const Link &link);
    // A create of client B (its session must be 2) goes to the lower layer and stays there.
    static void keep_b_busy();
    // What was sent first goes to `to` and has these bytes; it is taken.
    static void expect_sent(uint32_t to, const Bytes &message);
    static void expect_nothing_sent();
    // All traces since the last look, whatever their level.
    static void expect_traces(const std::vector<Trace> &expected);
    // Those of one level.
    static std::vector<std::string> traces_of(uint32_t level);
    // The neighbours' and the platform's calls since the last look.
    static std::vector<std::string> calls();
    // The last received message's monitor is delivered and offered, as the loop does.
    static void die(uint32_t client);
};
