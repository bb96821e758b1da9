// Tables for people: cells under heads, as wide as what stands in them. Pure functions.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace text_table
{

enum class colour {
    none,
    good,
    bad,
    warning,
    faint,
    bold
};

struct cell {
    // A cell is written as its text where it has no colour.
    cell(std::string its_text, colour its_paint = colour::none) // NOLINT(google-explicit-constructor)
        : text(std::move(its_text)), paint(its_paint)
    {
    }
    cell(const char *its_text) : text(its_text) {} // NOLINT(google-explicit-constructor)

    std::string text;
    colour paint = colour::none;
};

using row = std::vector<cell>;

// How many columns of a terminal a text takes: one for each character, however many bytes of UTF-8 that has. Combining
// and wide characters are none of ours.
size_t width_of(const std::string &text);
// The first `columns` characters.
std::string cut(const std::string &text, size_t columns);
// The same with blanks behind, up to that width.
std::string fill(const std::string &text, size_t columns);

// The text in its colour, and back to none behind it.
std::string painted(const std::string &text, colour paint);

// All rows, the first of which is the head, of the same number of cells. No line is longer than `columns`: what does
// not fit goes on in further lines under further heads, so that nothing is left out. A single cell that is wider stays
// whole.
std::string draw(const std::vector<row> &rows, size_t columns, bool with_colour);

} // namespace text_table
