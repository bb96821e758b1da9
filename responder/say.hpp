// What the responder has to say on stderr. A line never waits for whoever reads them: what is not taken at once is
// lost, counted, and told of before the next line. Nothing is said per frame.
#pragma once

namespace responder
{

// Before any descriptor is opened: only then is it known whether there is a stderr.
void say_open();
// Adds who says it, and the line feed.
__attribute__((format(printf, 1, 2))) void say(const char *format, ...);

} // namespace responder
