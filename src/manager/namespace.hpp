// Network namespaces: four operations, and the enter/leave pattern around every start and stop of a session.
#pragma once

#include <cstddef>

// Writes "/var/run/netns/<name>" with a bound; returns the full length.
int netns_path(const char *name, char *buffer, size_t size);
// A descriptor, or a negative value.
int open_current_netns();
// 0 success, 1 failure.
int enter_netns(const char *name);
// Closes fd in both cases. 0 success, 1 failure.
int return_to_netns(int fd);
