#include "outbox.hpp"

#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <sys/socket.h>
#include <unistd.h>

outbox::~outbox()
{
    while (head != nullptr) {
        outbox_pop(*this);
    }
}

void outbox_push(outbox &box, std::string_view frame, int fd, bool own)
{
    auto *fresh = static_cast<outbox_frame *>(malloc(sizeof(outbox_frame) + frame.size()));
    if (fresh == nullptr) {
        abort();
    }
    *fresh = {nullptr, fd, own, malloc_usable_size(fresh) + sizeof(size_t), frame.size()};
    memcpy(fresh->bytes(), frame.data(), frame.size());
    (box.head == nullptr ? box.head : box.tail->next) = fresh;
    box.tail = fresh;
    box.held += fresh->held;
    box.own_held += own ? fresh->held : 0;
}

void outbox_pop(outbox &box)
{
    outbox_frame *gone = box.head;
    box.head = gone->next;
    box.held -= gone->held;
    box.own_held -= gone->own ? gone->held : 0;
    box.written = 0;
    if (gone->fd >= 0) {
        close(gone->fd);
    }
    free(gone);
}

long outbox_write_head(const outbox &box, int socket)
{
    outbox_frame &frame = *box.head;
    iovec part{frame.bytes() + box.written, frame.size - box.written};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (frame.fd >= 0 && box.written == 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr *rights = CMSG_FIRSTHDR(&message);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(rights), &frame.fd, sizeof(int));
    }
    return sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}
