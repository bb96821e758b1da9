// The page that shows links and what became of them in a browser, and the paths below /api that it asks. It is a client
// of the control socket like any other, over a connection for each request: what a browser does cannot hold the links
// up, and it sees what a reader may see and nothing more.
//
//   /                   the page, and page.js, page.css, dygraph.js, dygraph.css beside it
//   /api/links          {"host", "links": [LINK]}
//   /api/status         the control protocol's answer
//   /api/events         {"events": [CHANGE]}; since=, limit=, link=, or latest=N: the newest so many; at most 1000
//   /api/history        link=, from_us=, to_us=, limit=: the control protocol's answer; at most 1000 changes
//   /api/samples        link=, from_us=, to_us=, points=: likewise; at most 2000 points
//   /events             server-sent events: "change" with a CHANGE and its id, from since= or Last-Event-ID on
#pragma once

#include "change.hpp"
#include "web.hpp"

#include <string>

namespace linkd
{

struct page_sources {
    std::string control;                                   // the control socket
    std::string charts = "/usr/share/javascript/dygraphs"; // dygraph.min.js and dygraph.min.css
};

// Routes only: who is answered is the server's to say (web.hpp).
void add_page(web &server, const page_sources &sources);

// Tells every page that is open what became of a link.
class page_news : public listener
{
public:
    explicit page_news(web &server) : server_(server) {}
    void changed(const link_change &change) override;

private:
    web &server_;
};

} // namespace linkd
