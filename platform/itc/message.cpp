/*
 * Messages as blocks of memory. A block belongs to whoever holds it; queues and outboxes link it through `next`.
 * A process that has no memory left for a message, or hands in something that is no message, ends here: going on would
 * lose or corrupt what others rely on.
 */
#include "state.hpp"

#include <cstdlib>
#include <malloc.h>

namespace itc
{
namespace
{

constexpr uint32_t alive = 0x17C0B10C;
constexpr uint32_t freed = 0x17C0DEAD;

// Fewer bytes than that are not worth the asking for their pages.
constexpr size_t give_back = 512u << 10;

// Up to here it is cheaper to wipe a message than to ask for zeros: the C library keeps what a thread has freed at hand
// for malloc, not for calloc.
constexpr size_t wiped_here = 1024;

[[noreturn]] void give_up(const char *why)
{
    complain("%s", why);
    abort();
}

} // namespace

// What was freed stays with the process as holes, as much as there ever was at once. Who filled our queues, or came
// with many connections, and has gone must not leave them to us for good. It takes milliseconds, so that nobody is to
// wait for it.
void memory_give_back()
{
    const size_t now = g().held.load(std::memory_order_relaxed);
    const size_t most = g().held_most.load(std::memory_order_relaxed);
    if (most > now && most - now >= give_back) [[unlikely]] {
        g().held_most.store(now, std::memory_order_relaxed);
        (void)malloc_trim(0);
    }
}

block *block_new(size_t size, bool zero)
{
    if (size > SIZE_MAX - sizeof(block)) {
        give_up("a message of an impossible size");
    }
    const bool wipe = zero && size <= wiped_here;
    void *memory = zero && !wipe ? calloc(1, sizeof(block) + size) : malloc(sizeof(block) + size);
    if (memory == nullptr) [[unlikely]] {
        give_up("no memory left for a message");
    }
    auto *b = static_cast<block *>(memory);
    *b = {};
    b->size = size;
    memory_more(sizeof *b + size);
    b->sender = ITC_NO_MBOX;
    b->receiver = ITC_NO_MBOX;
    b->magic = alive;
    if (wipe) {
        memset(b->bytes(), 0, size); // the message alone: a compiler knows calloc from the wiping of a whole malloc
    }
    return b;
}

block *block_resize(block *b, size_t size)
{
    auto *moved = static_cast<block *>(realloc(b, sizeof(block) + size));
    if (moved == nullptr) {
        give_up("no memory left for a message");
    }
    memory_less(sizeof *moved + moved->size);
    memory_more(sizeof *moved + size);
    moved->size = size;
    return moved;
}

block *block_of(const itc_msg *msg)
{
    // The caller holds the message, so the block before it is ours to write.
    auto *b = const_cast<block *>(reinterpret_cast<const block *>(msg)) - 1;
    if (b->magic != alive) {
        give_up("not a message, or one that was freed");
    }
    return b;
}

block *block_take(itc_msg **msg)
{
    if (msg == nullptr || *msg == nullptr) {
        return nullptr;
    }
    block *b = block_of(*msg);
    *msg = nullptr;
    return b;
}

void block_free(block *b)
{
    if (b != nullptr) {
        const size_t size = sizeof *b + b->size;
        b->magic = freed;
        free(b);
        memory_less(size);
    }
}

} // namespace itc

extern "C" {

itc_msg *itc_alloc(size_t size, uint32_t msgno)
{
    itc::try_backlog();
    itc::block *b = itc::block_new(size < sizeof(itc_msg) ? sizeof(itc_msg) : size, true);
    b->msg()->msgno = msgno;
    return b->msg();
}

void itc_free(itc_msg **msg)
{
    itc::try_backlog();
    itc::block_free(itc::block_take(msg));
}

size_t itc_size(const itc_msg *msg) { return itc::block_of(msg)->size; }

uint32_t itc_sender(const itc_msg *msg) { return itc::block_of(msg)->sender; }

} // extern "C"
