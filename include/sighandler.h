/*
 * Signals as plain calls. The callback runs on the thread that owns the mailbox, out of the wait in itc_receive,
 * between two messages, never in an asynchronous context: it may do anything, exit() included.
 */
#ifndef SIGHANDLER_H
#define SIGHANDLER_H

#ifdef __cplusplus
extern "C" {
#endif

typedef void (*signal_callback)(int signo);

/*
 * Has SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGUSR2, SIGALRM, SIGWINCH and SIGCONT given to `callback`; SIGPIPE is
 * ignored. To be called before any other thread is started. Returns 0 or an errno value. Called again, it replaces
 * the callback.
 */
int set_signal_handler(signal_callback callback);

#ifdef __cplusplus
}
#endif
#endif
