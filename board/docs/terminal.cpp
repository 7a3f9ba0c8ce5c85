#include "terminal.h"

#include "svg.h"

#include <array>
#include <map>
#include <sstream>
#include <vector>

namespace kelo::docs {

namespace {

constexpr double CELL = 8.43; // of DejaVu Sans Mono at this size
constexpr double ROW = 18;
constexpr double SIZE = 14;
constexpr double MARGIN = 14;
constexpr double BASELINE = 13.5;

constexpr char foreground[] = "#d3d7cf";
constexpr char background[] = "#16191d";
constexpr std::array<const char *, 8> palette{"#2e3436", "#ef5350", "#66bb6a", "#ffca28",
                                              "#64a8e8", "#d68fe0", "#4dd0e1", "#eeeeec"};

struct Look {
    std::string ink = foreground;
    std::string paper = background;
    bool bold = false;
    bool dim = false;
    bool reverse = false;

    bool operator==(const Look &) const = default;
    const std::string &front() const { return reverse ? paper : ink; }
    const std::string &back() const { return reverse ? ink : paper; }
};

void applyCode(Look &look, int code)
{
    const auto colour = [](int number) { return palette[static_cast<size_t>(number)]; };
    if (code == 0)
        look = Look();
    else if (code == 1)
        look.bold = true;
    else if (code == 2)
        look.dim = true;
    else if (code == 7)
        look.reverse = true;
    else if (code == 22)
        look.bold = look.dim = false;
    else if (code == 27)
        look.reverse = false;
    else if (code >= 30 && code <= 37)
        look.ink = colour(code - 30);
    else if (code == 39)
        look.ink = foreground;
    else if (code >= 40 && code <= 47)
        look.paper = colour(code - 40);
    else if (code == 49)
        look.paper = background;
    else if (code >= 90 && code <= 97)
        look.ink = colour(code - 90);
}

struct Cell {
    std::string character;
    Look look;
};

/// One row's cells; the look goes on from row to row.
std::vector<Cell> cellsOf(const std::string &line, Look &look)
{
    std::vector<Cell> cells;
    for (size_t i = 0; i < line.size();) {
        if (line[i] == '\033' && i + 1 < line.size() && line[i + 1] == '[') {
            const size_t end = line.find_first_of("ABCDEFGHJKSTfmnsu", i);
            if (end == std::string::npos)
                break;
            std::istringstream codes(line.substr(i + 2, end - i - 2));
            if (line[end] == 'm' && end == i + 2)
                look = Look();
            for (std::string code; line[end] == 'm' && std::getline(codes, code, ';');)
                applyCode(look, atoi(code.c_str()));
            i = end + 1;
        } else if (static_cast<unsigned char>(line[i]) < ' ') {
            i++; // shifts between character sets
        } else {
            size_t end = i + 1;
            while (end < line.size() && (static_cast<unsigned char>(line[end]) & 0xc0) == 0x80)
                end++;
            cells.push_back({line.substr(i, end - i), look});
            i = end;
        }
    }
    return cells;
}

std::string number(double value)
{
    std::ostringstream text;
    text.precision(2);
    text << std::fixed << value;
    return text.str();
}

/// A part of a cell, from `top` to `bottom` of its height.
std::string block(double x, double y, double width, double top, double bottom,
                  const std::string &colour, double opacity)
{
    return "<rect x=\"" + number(x) + "\" y=\"" + number(y + top * ROW) + "\" width=\"" +
           number(width) + "\" height=\"" + number((bottom - top) * ROW) + "\" fill=\"" + colour +
           "\"" + (opacity < 1 ? " fill-opacity=\"" + number(opacity) + "\"" : "") + "/>\n";
}

/// Characters that are shapes are drawn as such: fonts leave gaps between them.
struct Shape {
    double top;
    double bottom;
    double left = 0;
    double right = 1;
    double opacity = 1;
};

const std::map<std::string, Shape> &shapes()
{
    static const std::map<std::string, Shape> all{
        {"█", {0, 1}},    {"░", {0, 1, 0, 1, 0.22}}, {"▁", {0.87, 1}},         {"▂", {0.75, 1}},
        {"▃", {0.62, 1}}, {"▄", {0.5, 1}},           {"▅", {0.37, 1}},         {"▆", {0.25, 1}},
        {"▇", {0.12, 1}}, {"─", {0.47, 0.53}},       {"│", {0, 1, 0.43, 0.57}}};
    return all;
}

void drawBackground(Svg &svg, const std::vector<Cell> &cells, double y)
{
    for (size_t i = 0; i < cells.size();) {
        size_t end = i + 1;
        while (end < cells.size() && cells[end].look.back() == cells[i].look.back())
            end++;
        if (cells[i].look.back() != background)
            svg.raw(block(MARGIN + static_cast<double>(i) * CELL, y,
                          static_cast<double>(end - i) * CELL, 0, 1, cells[i].look.back(), 1));
        i = end;
    }
}

void drawRow(Svg &svg, const std::vector<Cell> &cells, double y)
{
    drawBackground(svg, cells, y);
    for (size_t i = 0; i < cells.size();) {
        // As far as cells look alike and are of the same shape, or form a word.
        const auto shape = shapes().find(cells[i].character);
        const bool isShape = shape != shapes().end();
        size_t end = i + 1;
        while (end < cells.size() && cells[end].look == cells[i].look &&
               (isShape ? cells[end].character == cells[i].character
                        : !shapes().count(cells[end].character) &&
                              (cells[end].character == " ") == (cells[i].character == " ")))
            end++;
        const Look &look = cells[i].look;
        const double x = MARGIN + static_cast<double>(i) * CELL;
        const double width = static_cast<double>(end - i) * CELL;
        const double opacity = look.dim ? 0.55 : 1;
        if (isShape) {
            const Shape &s = shape->second;
            const bool narrow = s.left > 0;
            svg.raw(block(x + s.left * CELL, y, narrow ? (s.right - s.left) * CELL : width, s.top,
                          s.bottom, look.front(), s.opacity));
        } else if (cells[i].character != " ") {
            std::string text;
            for (size_t cell = i; cell < end; cell++)
                text += cells[cell].character;
            svg.raw("<text x=\"" + number(x) + "\" y=\"" + number(y + BASELINE) + "\" fill=\"" +
                    look.front() + "\"" +
                    (opacity < 1 ? " fill-opacity=\"" + number(opacity) + "\"" : "") +
                    (look.bold ? " font-weight=\"bold\"" : "") + ">" + Svg::escape(text) +
                    "</text>\n");
        }
        i = end;
    }
}

} // namespace

std::string drawTerminal(const std::string &capture, int columns)
{
    const double width = columns * CELL + 2 * MARGIN;
    Svg svg;
    svg.style("text{font-family:DejaVu Sans Mono,Menlo,Consolas,monospace;font-size:" +
              number(SIZE) + "px}");
    std::istringstream lines(capture);
    std::vector<std::vector<Cell>> rows;
    Look look;
    for (std::string line; std::getline(lines, line);)
        rows.push_back(cellsOf(line, look));
    const double height = static_cast<double>(rows.size()) * ROW + 2 * MARGIN;
    svg.raw("<rect width=\"" + number(width) + "\" height=\"" + number(height) +
            "\" rx=\"8\" fill=\"" + background + "\"/>\n");
    double y = MARGIN;
    for (const std::vector<Cell> &row : rows) {
        drawRow(svg, row, y);
        y += ROW;
    }
    return svg.finish(width, height, "The front panel");
}

} // namespace kelo::docs
