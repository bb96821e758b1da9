// Network namespaces: four operations, and the visit that every start and stop of a session is made in.
#pragma once

#include <cstddef>

// Writes "/var/run/netns/<name>" with a bound; returns the full length.
int netns_path(const char *name, char *buffer, size_t size);
// A descriptor, or a negative value.
int open_current_netns();
// 0 success, 1 failure. The name is that of a file in the directory: one that is empty, "." or "..", or has a '/',
// cannot be opened, nor can what is no namespace, nor a link, but for one to /proc/self/ns/net, which stands for where
// the caller is. Nothing that lies there makes it wait.
int enter_netns(const char *name);
// Closes fd in both cases. 0 success, 1 failure.
int return_to_netns(int fd);

// Goes into a namespace and remembers where the thread was. False: not entered, nothing to end; the handle of where the
// thread was stays open until that happens again.
bool netns_visit_begin(const char *name, int *previous);
// Goes back. When that fails it is traced, and the thread may stay in `name` until the next visit.
void netns_visit_end(const char *name, int previous);
