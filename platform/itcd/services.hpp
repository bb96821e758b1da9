/*
 * The name service's tables: services by name and scope, and who subscribes to a name. Called by the registry, which
 * has checked that the mailbox in hand is the client's own. Each request returns 0 or an errno value.
 */
#ifndef ITCD_SERVICES_HPP
#define ITCD_SERVICES_HPP

#include "registry.hpp"

void services_start(registry_output &output);
int service_publish(registry_client &from, uint32_t mbox, const std::string &name, const std::string &scope,
                    const std::string &path);
int service_unpublish(registry_client &from, uint32_t mbox, const std::string &name, const std::string &scope,
                      const std::string &path);
int service_subscribe(registry_client &from, uint32_t mbox, uint32_t sid, const std::string &name,
                      const std::string &scope);
int service_unsubscribe(registry_client &from, uint32_t mbox, uint32_t sid);
void service_tell_all(registry_client &to, uint32_t sid);          // what is there already
void services_mailbox_gone(registry_client &owner, uint32_t mbox); // its services and its subscriptions
bool services_are_empty();                                         // neither a service nor a subscriber

#endif
