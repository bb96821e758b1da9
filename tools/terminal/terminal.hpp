// The terminal of a live table: keys one by one, a screen that is redrawn in place, and everything put back as it
// was.
#pragma once

#include <string>

struct terminal_size {
    int columns;
    int rows;
};

bool terminal_there();        // standard input and output are one, and it takes escape codes
bool terminal_takes_codes();  // TERM names one that knows escape codes
bool terminal_wants_colour(); // NO_COLOR is not set, or empty

// Keeps the terminal's settings; terminal_restore, in this process or one that was forked from it, brings them back
// when the screen was taken. False: they cannot be kept.
bool terminal_remember();
void terminal_restore();
// Brings the screen and the settings back too when every process that was forked from this one since is dead, however
// that came: a process of its own does it, which ends then. Called after terminal_remember.
void terminal_watch();

// Takes the screen over.
void terminal_take();
terminal_size terminal_get_size();

// Draws a whole screen in one write; lines are cut at the screen's width by the caller.
void terminal_draw(const std::string &text);

// A key that was pressed, or 0.
char terminal_key();
