// Somebody who sends the daemon, or a service of the node, what is not his to send:
//
//   e2e-stranger NAME WORDS...   each of WORDS is a message: 32-bit numbers with commas between, its number first;
//                                "+SIZE" behind them makes it that long. "open" asks for a session and says what came,
//                                "SERVICE:NUMBERS" sends to that mailbox, asks what it keeps and says what came first,
//                                "stay" waits to be killed
//
// At the end he asks for the link list, and says when the daemon has answered: then it has read everything.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <arpa/inet.h>

#include "control_wire.hpp"
#include "iemli/iemli_messages.hpp"
#include "itc.h"
#include "shell/shell_messages.hpp"

namespace
{

constexpr uint32_t ANSWER_MS = 10000;

uint32_t as_it_is(uint32_t word) { return word; }

// `order` makes of each word but the number what stands in the message.
void send_words(uint32_t to, const std::string &text, uint32_t (*order)(uint32_t) = as_it_is)
{
    std::vector<uint32_t> words;
    const char *at = text.c_str();
    char *end = nullptr;
    do {
        const auto word = static_cast<uint32_t>(strtoul(at, &end, 0));
        words.push_back(words.empty() ? word : order(word));
        at = end + 1;
    } while (*end == ',');
    const size_t size = *end == '+' ? strtoul(end + 1, nullptr, 0) : words.size() * sizeof words[0];
    itc_msg *msg = itc_alloc(size, words[0]);
    memcpy(msg, words.data(), words.size() * sizeof words[0]);
    itc_send(&msg, to, ITC_MY_MBOX);
}

// What the daemon answers to a request for a session; the answer to the question behind it, if it answers that first.
uint32_t open_session(uint32_t to)
{
    itc_msg *msg = itc_alloc(sizeof(iemli_init_service_req), IEMLI_INIT_SERVICE_REQ);
    reinterpret_cast<iemli_init_service_req *>(msg)->pv_1 = IEMLI_PROTOCOL_VERSION;
    itc_send(&msg, to, ITC_MY_MBOX);
    itc_msg *question = itc_alloc(sizeof(itc_msg), IECTM_COLI_IML_LINK_LIST_REQ);
    itc_send(&question, to, ITC_MY_MBOX);
    itc_msg *answer = itc_receive(nullptr, ANSWER_MS, ITC_FROM_ANY);
    const uint32_t number = answer == nullptr ? 0 : answer->msgno;
    itc_free(&answer);
    return number;
}

// What a service answers to a message whose numbers are in network order; the answer to the question behind it, if it
// answers that first.
uint32_t ask_service(const std::string &name, const std::string &text)
{
    const uint32_t to = itc_locate(name.c_str());
    send_words(to, text, htonl);
    const kap_node::bytes question = kap_node::control_message(kap_node::CONTROL_REQUEST, 1, {{"command", {"show"}}});
    itc_msg *msg = itc_alloc(question.size(), 0);
    memcpy(msg, question.data(), question.size());
    itc_send(&msg, to, ITC_MY_MBOX);
    itc_msg *answer = itc_receive(nullptr, ANSWER_MS, ITC_FROM_ANY);
    const uint32_t number = answer == nullptr ? 0 : answer->msgno;
    itc_free(&answer);
    return number;
}

bool has_read_all(uint32_t to)
{
    itc_msg *question = itc_alloc(sizeof(itc_msg), IECTM_COLI_IML_LINK_LIST_REQ);
    itc_send(&question, to, ITC_MY_MBOX);
    const uint32_t filter[] = {1, IECTM_COLI_IML_LINK_LIST_RSP};
    itc_msg *answer = itc_receive(filter, ANSWER_MS, ITC_FROM_ANY);
    const bool read = answer != nullptr;
    itc_free(&answer);
    return read;
}

} // namespace

int main(int argc, char **argv)
{
    (void)setvbuf(stdout, nullptr, _IOLBF, 0);
    if (argc < 2 || itc_init(1, 0, nullptr, nullptr, 0) != 0 || itc_create_mailbox(argv[1], 0) == ITC_NO_MBOX) {
        printf("usage: e2e-stranger NAME WORDS..., with a registry\n");
        return 2;
    }
    const uint32_t to = itc_locate("kap-vorn");
    for (int i = 2; i < argc; i++) {
        const std::string words = argv[i];
        if (words == "open") {
            printf("asked for a session, got 0x%x\n", open_session(to));
        } else if (const size_t colon = words.find(':'); colon != std::string::npos) {
            const std::string service = words.substr(0, colon);
            printf("asked %s, got 0x%x\n", service.c_str(), ask_service(service, words.substr(colon + 1)));
        } else if (words == "stay") {
            printf("stays\n");
            while (itc_msg *msg = itc_receive(nullptr, ITC_NO_TIMEOUT, ITC_FROM_ANY)) {
                itc_free(&msg);
            }
        } else {
            send_words(to, words);
        }
    }
    printf("%s\n", has_read_all(to) ? "the daemon has read it all" : "the daemon does not answer");
    itc_exit();
    return 0;
}
