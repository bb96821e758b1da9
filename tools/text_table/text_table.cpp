#include "text_table.hpp"

#include <algorithm>

namespace text_table
{

namespace
{

constexpr size_t GAP = 2;

bool begins_character(char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U; }

// Where a row goes on in a new line: before these cells. The lines after the first stand under the second cell, so that
// what begins in the first column is always a new thing.
std::vector<bool> breaks_of(const std::vector<size_t> &widths, size_t columns)
{
    std::vector<bool> breaks(widths.size());
    size_t used = 0;
    for (size_t i = 0; i < widths.size(); ++i) {
        if (i > 1 && used + widths[i] > columns) {
            breaks[i] = true;
            used = widths[0] + GAP;
        }
        used += widths[i] + GAP;
    }
    return breaks;
}

std::vector<size_t> widths_of(const std::vector<row> &rows)
{
    std::vector<size_t> widths(rows.empty() ? 0 : rows[0].size());
    for (const row &cells : rows) {
        for (size_t i = 0; i < cells.size() && i < widths.size(); ++i) {
            widths[i] = std::max(widths[i], width_of(cells[i].text));
        }
    }
    return widths;
}

// Blanks wait until something follows them: none stands at the end of a line.
std::string lines_of(const row &cells, const std::vector<size_t> &widths, const std::vector<bool> &breaks,
                     bool with_colour)
{
    std::string lines;
    size_t blanks = 0;
    for (size_t i = 0; i < cells.size(); ++i) {
        if (breaks[i]) {
            lines += "\n";
            blanks = widths[0] + GAP;
        }
        const std::string &text = cells[i].text;
        if (!text.empty()) {
            lines += std::string(blanks, ' ') + (with_colour ? painted(text, cells[i].paint) : text);
            blanks = 0;
        }
        blanks += widths[i] - width_of(text) + GAP;
    }
    return lines + "\n";
}

} // namespace

size_t width_of(const std::string &text)
{
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), begins_character));
}

std::string cut(const std::string &text, size_t columns)
{
    size_t seen = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if (begins_character(text[i]) && seen++ == columns) {
            return text.substr(0, i);
        }
    }
    return text;
}

std::string fill(const std::string &text, size_t columns)
{
    const size_t width = width_of(text);
    return width >= columns ? cut(text, columns) : text + std::string(columns - width, ' ');
}

std::string painted(const std::string &text, colour paint)
{
    const char *codes[] = {"", "\x1b[32m", "\x1b[31m", "\x1b[33m", "\x1b[2m", "\x1b[1m"};
    const char *code = codes[static_cast<size_t>(paint)];
    return *code == '\0' ? text : code + text + "\x1b[0m";
}

std::string draw(const std::vector<row> &rows, size_t columns, bool with_colour)
{
    const std::vector<size_t> widths = widths_of(rows);
    const std::vector<bool> breaks = breaks_of(widths, columns);
    std::string text;
    for (const row &cells : rows) {
        text += lines_of(cells, widths, breaks, with_colour);
    }
    return text;
}

} // namespace text_table
