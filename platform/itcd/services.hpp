/*
 * The name service's tables: services by name and scope, and who subscribes to a name. Called by the registry, which
 * has checked that the mailbox in hand is the client's own. Each request returns 0 or an errno value.
 *
 * A subscription knows what its subscriber was told is there. News are never kept as such: somebody's having changed
 * something is a reason to compare, for each subscriber, what was told with what is there, and to tell the difference
 * (removed before added). So comparing twice, late, or in any order tells nothing twice and nothing that is not so, and
 * a subscriber that is behind costs no memory: it is compared as a whole when it has caught up.
 */
#ifndef ITCD_SERVICES_HPP
#define ITCD_SERVICES_HPP

#include "registry.hpp"

struct registry_box_services;

struct service {
    topic_entry *about;
    std::string scope;
    std::string path;
    uint32_t mbox;
    registry_client *owner;
    registry_box_services *box; // of `mbox`
};

// All that has to do with one name.
struct topic {
    std::map<std::string_view, service_ptr> there;       // by scope
    std::set<std::pair<uint32_t, uint32_t>> subscribers; // process, sid
};

// What a mailbox has of the name service.
struct registry_box_services {
    std::set<service_ptr> services;
    std::set<uint32_t> sids;
};

void services_start(registry_output &output);
// These leave the telling of it as tasks on `from.work`.
int service_publish(registry_client &from, registry_box_services &box, uint32_t mbox, const std::string &name,
                    const std::string &scope, const std::string &path);
int service_unpublish(registry_client &from, uint32_t mbox, const std::string &name, const std::string &scope,
                      const std::string &path);
int service_subscribe(registry_client &from, registry_box_services &box, uint32_t mbox, uint32_t sid,
                      const std::string &name, const std::string &scope);
int service_unsubscribe(registry_client &from, registry_box_services &box, uint32_t mbox, uint32_t sid);

// Forgets one subscription or withdraws one service of a mailbox that goes; false if there is none left.
bool services_forget_one(registry_client &owner, registry_box_services &box);

enum class step {
    more, // something was done
    done,
    behind, // the subscriber has to read first
};
step service_tell_change(registry_task &task);                        // one subscriber
step service_sweep(registry_client &subscriber, registry_task &task); // one scope
bool services_are_empty();                                            // neither a service nor a subscriber

#endif
