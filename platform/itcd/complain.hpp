// What the registry has to say on stderr, once it runs. It serves a whole node, so a line never waits for whoever reads
// them: lines that are not taken at once are lost, counted, and told of later.
#ifndef ITCD_COMPLAIN_HPP
#define ITCD_COMPLAIN_HPP

// Before any descriptor is opened: only then is it known whether the process was started with a stderr.
void complain_open();
// Adds who says it, and the line feed. Of one kind a hundred lines are written in a second; what is more is counted and
// told (limit.hpp). Lines of one format are a kind.
__attribute__((format(printf, 1, 2))) void complain(const char *format, ...);
// The same of a kind that has a name of its own; only its address counts.
__attribute__((format(printf, 2, 3))) void complain_of(const char *kind, const char *format, ...);

#endif
