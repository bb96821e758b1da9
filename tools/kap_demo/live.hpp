// The live table: the links as the client sees them, redrawn as things change, with keys to break and mend the scene.
#pragma once

#include "demo.hpp"

// Shows the table until q, Ctrl-C or SIGTERM, then ends everything in order. Returns the exit status.
int live_run(demo &d);
