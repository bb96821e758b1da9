// Asks for one link, and prints what becomes of it until the service is gone.
//
//   g++ -std=c++17 one_link.cpp $(pkg-config --cflags --libs kap-iemli) -o one_link
//   ./one_link IDL_A1 100 02:00:00:00:00:02
#include <itc.h>
#include <kap_iemli.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char **argv)
{
    kap_iemli_link link{};
    link.near_mp_id = 1;
    unsigned char *mac = link.far.byte;
    if (argc != 4 ||
        sscanf(argv[3], "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", mac, mac + 1, mac + 2, mac + 3, mac + 4, mac + 5) != 6) {
        fprintf(stderr, "usage: one_link PORT VLAN FAR-CPM-MAC\n");
        return 2;
    }
    link.port = argv[1];
    link.vlan = static_cast<uint16_t>(atoi(argv[2]));

    // A client needs a mailbox; its name is free to choose.
    kap_iemli *client = nullptr;
    if (itc_init(1, 0, nullptr, nullptr, 0) != 0 || itc_create_mailbox("one-link", 0) == ITC_NO_MBOX ||
        (client = kap_iemli_new(1)) == nullptr) {
        fprintf(stderr, "no message registry\n");
        return 1;
    }
    kap_iemli_answer answer{};
    if (kap_iemli_wait_published(client, KAP_IEMLI_FOREVER) == 0 ||
        kap_iemli_open(client, &answer) != KAP_IEMLI_CONFIRMED ||
        kap_iemli_create(client, &link, &answer) != KAP_IEMLI_CONFIRMED) {
        fprintf(stderr, "%s: %s\n", kap_iemli_outcome_text(answer.outcome), kap_iemli_reason_text(answer.reason));
        return 1;
    }
    printf("link %u\n", answer.link_ref);

    kap_iemli_event event{};
    while (kap_iemli_next_event(client, KAP_IEMLI_FOREVER, &event) != 0) {
        switch (event.kind) {
        case KAP_IEMLI_LINK_STATUS:
            printf("%s\n", kap_iemli_status_text(event.enabled, event.disabled_reason));
            fflush(stdout);
            break;
        case KAP_IEMLI_WITHDRAWN:
        case KAP_IEMLI_DAEMON_DIED:
        case KAP_IEMLI_REGISTRY_LOST:
            fprintf(stderr, "the service is gone, and the link with it\n");
            return 1;
        default:
            break;
        }
    }
}
