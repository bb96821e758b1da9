/*
 * The name service as its users see it. The tables are the registry's, the connection to it is libitc's: here the
 * arguments are checked, nothing else.
 */
#include "ns.h"

#include "itc_internal.h"

#include <cerrno>
#include <cstring>

namespace
{

constexpr size_t text_limit = 255;

bool is_text(const char *text) { return text != nullptr && strnlen(text, text_limit + 1) <= text_limit; }

bool is_service(const char *name, const char *scope) { return is_text(name) && *name != 0 && is_text(scope); }

} // namespace

extern "C" {

int ns_publish(const char *name, const char *scope, uint32_t mbox, const char *path)
{
    return is_service(name, scope) && is_text(path) ? itc_internal_publish(name, scope, mbox, path) : EINVAL;
}

int ns_unpublish(const char *name, const char *scope, uint32_t mbox, const char *path)
{
    return is_service(name, scope) && is_text(path) ? itc_internal_unpublish(name, scope, mbox, path) : EINVAL;
}

int ns_subscribe(const char *name, const char *scope, uint32_t mbox)
{
    return is_service(name, scope) ? itc_internal_subscribe(name, scope, mbox) : EINVAL;
}

int ns_unsubscribe(uint32_t sid, uint32_t mbox) { return itc_internal_unsubscribe(sid, mbox); }

} // extern "C"
