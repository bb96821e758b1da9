// The tour: a story in steps, each of which is checked and told in one line.
#pragma once

#include "demo.hpp"

// Tells the whole story. Returns 0 when every step held, else 1; the first step that does not hold, or cannot be
// told, ends it.
int story_run(demo &d);
