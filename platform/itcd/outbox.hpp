/*
 * Frames that wait for one process to read them, counted by the memory they really hold.
 */
#ifndef ITCD_OUTBOX_HPP
#define ITCD_OUTBOX_HPP

#include <cstddef>
#include <string_view>

struct outbox_frame {
    outbox_frame *next;
    int fd;
    bool own; // the process asked for it, and it is the answer
    size_t held;
    size_t size;

    char *bytes() { return reinterpret_cast<char *>(this + 1); }
};

struct outbox {
    outbox_frame *head = nullptr;
    outbox_frame *tail = nullptr;
    size_t held = 0;     // bytes of memory
    size_t own_held = 0; // those of answers
    size_t written = 0;  // of the head

    outbox() = default;
    outbox(const outbox &) = delete;
    outbox &operator=(const outbox &) = delete;
    ~outbox();
};

void outbox_push(outbox &box, std::string_view frame, int fd, bool own); // takes `fd` over
void outbox_pop(outbox &box);                                            // closes the frame's descriptor

// Writes the rest of the head, its descriptor with the first byte. Returns the number of bytes, or -1 and errno.
long outbox_write_head(const outbox &box, int socket);

#endif
