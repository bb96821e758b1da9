// Namespaces of a program's own: mounts (a fresh /run, so that the machine's names and sockets stay untouched),
// network, processes. Whatever is started inside ends with the program, however that ends.
//
//   the program as it was called     waits, hands on SIGTERM and SIGHUP, gives the exit status
//     +- process 1 inside            waits too; its end ends every process inside
//          +- the program goes on    returns from sandbox_enter
//
// Root gets these namespaces as they are. An ordinary user gets them in a user namespace, as its root, where the
// machine allows that.
#pragma once

#include <string>

#include <sys/types.h>

// Goes on inside. False: it could not be done, and `error` says in one line what it needs; the process is unchanged as
// far as its caller can see. Called once, before any thread is started. `at_end` is called by the process that was
// called, whatever became of the one inside.
bool sandbox_enter(std::string &error, void (*at_end)() = nullptr);

// Goes on inside a sandbox that is there, in the same working directory: the process that was called waits, hands on
// SIGTERM and SIGHUP, and gives the exit status. `first` is the process 1 of that sandbox, as it is seen from here.
// False: as above, but the process may be in some of the namespaces.
bool sandbox_visit(pid_t first, std::string &error);
