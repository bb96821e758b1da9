/* A client of the daemon in C: one of each request over the client library, a line each. */
#include <itc.h>
#include <kap_iemli.h>
#include <stdio.h>
#include <string.h>

static const struct kap_iemli_mac far_end = {{0x02, 0, 0, 0, 0xA1, 0xFE}};

static void say(const char *what, const struct kap_iemli_answer *answer)
{
    int rejected = answer->outcome == KAP_IEMLI_REJECTED;
    printf("%s: %s%s%s\n", what, kap_iemli_outcome_text(answer->outcome), rejected ? ", " : "",
           rejected ? kap_iemli_reason_text(answer->reason) : "");
}

static void wait_for(struct kap_iemli *client, uint32_t kind, uint32_t enabled)
{
    struct kap_iemli_event event;
    do {
        if (kap_iemli_next_event(client, 20000, &event) == 0) {
            printf("no such event\n");
            return;
        }
    } while (event.kind != kind || event.enabled != enabled);
    if (kind == KAP_IEMLI_LINK_RTT) {
        printf("round trip in order: %d\n", event.rtt.valid == 1 && event.rtt.shortest > 0 &&
                                                event.rtt.shortest <= event.rtt.average &&
                                                event.rtt.average <= event.rtt.longest);
    } else {
        printf("status: %s\n", kap_iemli_status_text(event.enabled, event.disabled_reason));
    }
}

int main(void)
{
    struct kap_iemli_app_link pairs[2] = {{{{6, 0, 0, 0, 0, 1}}, {{6, 0, 0, 0, 1, 1}}},
                                          {{{6, 0, 0, 0, 0, 2}}, {{6, 0, 0, 0, 1, 2}}}};
    struct kap_iemli_link link = {"IDL_A1", 100, 1, far_end, 1, pairs};
    const struct kap_iemli_rtt_settings wrong = {7, 1, 64};
    struct kap_iemli_answer answer;
    struct kap_iemli *client;
    uint32_t link_ref;
    if (itc_init(1, 0, NULL, NULL, 0) != 0 || itc_create_mailbox("c-client", 0) == ITC_NO_MBOX) {
        return 1;
    }
    client = kap_iemli_new(11);
    if (client == NULL || !kap_iemli_wait_published(client, 10000)) {
        return 1;
    }
    kap_iemli_create(client, &link, &answer);
    say("create without session", &answer);
    kap_iemli_open(client, &answer);
    say("open", &answer);
    kap_iemli_open(client, &answer);
    say("open again", &answer);
    kap_iemli_get_mac(client, "IDL_A1", 1, &answer);
    say("get mac", &answer);
    printf("%s processor %u %02X:%02X:%02X:%02X:%02X:%02X\n", answer.port, answer.near_mp_id, answer.mac.byte[0],
           answer.mac.byte[1], answer.mac.byte[2], answer.mac.byte[3], answer.mac.byte[4], answer.mac.byte[5]);
    kap_iemli_get_mac(client, "NOWHERE", 1, &answer);
    say("get mac of no port", &answer);
    link.vlan = KAP_IEMLI_LAST_VLAN + 1;
    kap_iemli_create(client, &link, &answer);
    say("create in no VLAN", &answer);
    link.vlan = 100;
    kap_iemli_create(client, &link, &answer);
    say("create", &answer);
    link_ref = answer.link_ref;
    wait_for(client, KAP_IEMLI_LINK_STATUS, 1);
    kap_iemli_create(client, &link, &answer);
    say("create again", &answer);
    kap_iemli_update(client, link_ref, pairs, 2, &answer);
    say("update", &answer);
    kap_iemli_update(client, link_ref, pairs, 2, &answer);
    say("update to the same", &answer);
    kap_iemli_enable_rtt(client, link_ref, &wrong, &answer);
    say("wrong rtt", &answer);
    kap_iemli_enable_rtt(client, link_ref, NULL, &answer);
    say("rtt", &answer);
    kap_iemli_enable_rtt(client, link_ref, NULL, &answer);
    say("rtt again", &answer);
    wait_for(client, KAP_IEMLI_LINK_RTT, 0);
    kap_iemli_disable_rtt(client, link_ref, &answer);
    say("no rtt", &answer);
    kap_iemli_delete(client, link_ref, &answer);
    say("delete", &answer);
    kap_iemli_enable_rtt(client, link_ref, NULL, &answer);
    say("rtt of no link", &answer);
    kap_iemli_close(client, &answer);
    say("close", &answer);
    kap_iemli_free(client);
    itc_exit();
    return 0;
}
