// What the registry has to say on stderr, once it runs. It serves a whole node, so a line never waits for whoever reads
// them: lines that are not taken at once are lost, counted, and told of later.
#ifndef ITCD_COMPLAIN_HPP
#define ITCD_COMPLAIN_HPP

// Before any descriptor is opened: only then is it known whether the process was started with a stderr.
void complain_open();
// Adds who says it, and the line feed.
__attribute__((format(printf, 1, 2))) void complain(const char *format, ...);

#endif
