// A client as somebody else would write it: built with what libkap-dev brings and pkg-config says, and nothing of this
// tree. It asks the registry for a mailbox; where there is none, it says so and ends with 3.
#include <cstdio>
#include <cstring>

#include <iemli/iemli_messages.hpp>
#include <itc.h>
#include <ns.h>

int main()
{
    const int failure = itc_init(1, 0, nullptr, nullptr, 0);
    if (failure != 0) {
        printf("no registry: %s\n", strerror(failure));
        return 3;
    }
    const uint32_t own = itc_create_mailbox("packaged-client", 0);
    itc_msg *request = itc_alloc(sizeof(iemli_init_service_req), IEMLI_INIT_SERVICE_REQ);
    itc_send(&request, own, ITC_MY_MBOX);
    itc_msg *back = itc_receive(nullptr, 1000, own);
    const bool right = back != nullptr && back->msgno == IEMLI_INIT_SERVICE_REQ;
    itc_free(&back);
    ns_unpublish("packaged-client", "tn", own, "packaged-client");
    itc_exit();
    return right ? 0 : 1;
}
