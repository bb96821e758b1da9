// A client as somebody else would write it: built with what libkap-dev brings and pkg-config says, and nothing of this
// tree. It asks the registry for a mailbox; where there is none, it says so and ends with 3.
#include <cstdio>
#include <cstring>

#include <itc.h>
#include <kap_iemli.h>
#include <ns.h>

int main()
{
    const int failure = itc_init(1, 0, nullptr, nullptr, 0);
    if (failure != 0) {
        printf("no registry: %s\n", strerror(failure));
        return 3;
    }
    const uint32_t own = itc_create_mailbox("packaged-client", 0);
    itc_msg *request = itc_alloc(sizeof *request, 1);
    itc_send(&request, own, ITC_MY_MBOX);
    itc_msg *back = itc_receive(nullptr, 1000, own);
    const bool right = back != nullptr && back->msgno == 1;
    itc_free(&back);
    ns_unpublish("packaged-client", "tn", own, "packaged-client");
    kap_iemli *client = kap_iemli_new(1);
    const bool found = client != nullptr && kap_iemli_wait_published(client, 0) != 0;
    kap_iemli_free(client);
    itc_exit();
    return right && !found ? 0 : 1;
}
