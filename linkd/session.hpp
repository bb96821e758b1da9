// The keeper's way to the daemon: ITC and the IEMLI client. It reads what comes, hands it to the keeper in its order,
// and sends what the keeper asks for. From time to time it asks for the daemon's link list, which has the counters and
// whatever was lost on the way here; and before a link goes, so that its last pings count.
//
// A process has one connection with the registry in its life: when that is lost, the program has to begin anew. Where
// connections do not last, later and later.
#pragma once

#include "keeper.hpp"
#include "loop.hpp"
#include "services.hpp"

#include "iemli_client.hpp"

#include <functional>

namespace linkd
{

instant now();

class session : public sender
{
public:
    // `on_registry_lost` is called once; with how many connections, one after the other, did not last, of which
    // `short_lived` were those of the programs before.
    session(loop &turns, uint32_t short_lived, std::function<void(uint32_t)> on_registry_lost);
    ~session() override;
    session(const session &) = delete;
    session &operator=(const session &) = delete;

    void set_keeper(keeper &keeps) { keeper_ = &keeps; }
    // Looks for the registry until it is there.
    void connect();
    // Has the keeper do what is due, now and when it says so. To be called when it was told something by others.
    void settle();
    bool has_registry() const { return connected_ && !over_; }
    // Calls when the daemon's list was read once more; also when that takes too long.
    void before_the_end(std::function<void()> then);
    std::vector<service_view> services() const { return services_.look(); }

    uint32_t send(const request &what) override;

private:
    void try_to_connect();
    void start_client();
    void read();
    void hand_over();
    void handle(const iemli_event &event);
    void on_registry_lost(const std::string &what);
    void ask_for_list();
    void ask_for_list_now();
    void read_list(const itc_msg *msg);

    loop &turns_;
    std::function<void(uint32_t)> lost_;
    keeper *keeper_ = nullptr;
    iemli_client client_;
    node_services services_;
    bool connected_ = false;
    int64_t connected_ms_ = 0;
    uint32_t short_lived_;
    bool over_ = false; // the registry is lost
    int64_t asked_ms_ = 0;
    std::function<void()> on_list_;
    bool said_ = false; // that the registry is waited for
    uint64_t timer_ = 0;
    int64_t timer_ms_ = 0;
};

} // namespace linkd
