// Where the daemon keeps a leak on purpose, it says so here: a leak checker that runs with it is told of exactly these
// objects and fails on any other. Every such leak has a bound, and what is beyond it is freed after all.
#pragma once

extern "C" {
// The leak checker's own, when there is one; tests count what is kept.
void __lsan_ignore_object(const void *object) __attribute__((weak));
void kap_note_kept_leak(const void *object) __attribute__((weak));
}

inline void keep_leak(const void *object)
{
    if (__lsan_ignore_object != nullptr) {
        __lsan_ignore_object(object);
    }
    if (kap_note_kept_leak != nullptr) {
        kap_note_kept_leak(object);
    }
}
