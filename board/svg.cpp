#include "svg.h"

#include <cmath>
#include <cstdio>

namespace kelo {

namespace {

constexpr char lightRules[] = ".bg{fill:#ffffff}"
                              ".ink{fill:#1f2328;stroke:#1f2328}"
                              ".muted{fill:#59636e;stroke:#59636e}"
                              ".grid{fill:#d8dee4;stroke:#d8dee4}"
                              ".off{fill:#e6e9ed;stroke:#e6e9ed}"
                              ".lit{fill:#1a7f37;stroke:#1a7f37}"
                              ".busy{fill:#80bf92;stroke:#80bf92}"
                              ".band{fill:#cfe6fb;stroke:#54a0e0}"
                              ".mark{fill:#bc4c00;stroke:#bc4c00}";
constexpr char darkRules[] = ".bg{fill:#0d1117}"
                             ".ink{fill:#e6edf3;stroke:#e6edf3}"
                             ".muted{fill:#9198a1;stroke:#9198a1}"
                             ".grid{fill:#2a313a;stroke:#2a313a}"
                             ".off{fill:#21262d;stroke:#21262d}"
                             ".lit{fill:#3fb950;stroke:#3fb950}"
                             ".busy{fill:#23683a;stroke:#23683a}"
                             ".band{fill:#123a5c;stroke:#388bfd}"
                             ".mark{fill:#f0883e;stroke:#f0883e}";

/// A length with at most two decimals.
std::string number(double value)
{
    char text[32];
    snprintf(text, sizeof text, "%.2f", value);
    std::string result = text;
    result.erase(result.find_last_not_of('0') + 1);
    if (result.back() == '.')
        result.pop_back();
    return result == "-0" ? "0" : result;
}

std::string attribute(const char *name, double value)
{
    return std::string(" ") + name + "=\"" + number(value) + "\"";
}

std::string open(const char *element, const char *style)
{
    return std::string("<") + element + " class=\"" + style + "\"";
}

} // namespace

void Svg::rect(const char *style, double x, double y, double width, double height, double radius)
{
    body_ += open("rect", style) + attribute("x", x) + attribute("y", y) +
             attribute("width", width) + attribute("height", height) +
             (radius > 0 ? attribute("rx", radius) : "") + "/>\n";
}

void Svg::line(const char *style, double x1, double y1, double x2, double y2)
{
    body_ += open("line", style) + attribute("x1", x1) + attribute("y1", y1) + attribute("x2", x2) +
             attribute("y2", y2) + "/>\n";
}

void Svg::circle(const char *style, double x, double y, double radius)
{
    body_ += open("circle", style) + attribute("cx", x) + attribute("cy", y) +
             attribute("r", radius) + "/>\n";
}

void Svg::text(const char *style, double x, double y, const std::string &text, Anchor anchor)
{
    const char *const anchors[] = {"", " text-anchor=\"middle\"", " text-anchor=\"end\""};
    body_ += open("text", style) + attribute("x", x) + attribute("y", y) +
             anchors[static_cast<int>(anchor)] + ">" + escape(text) + "</text>\n";
}

std::string Svg::finish(double width, double height, const std::string &title) const
{
    return "<svg xmlns=\"http://www.w3.org/2000/svg\"" + attribute("width", width) +
           attribute("height", height) + " viewBox=\"0 0 " + number(width) + " " + number(height) +
           "\" font-family=\"DejaVu Sans,Verdana,sans-serif\"" + attribute("font-size", FONT_SIZE) +
           ">\n<title>" + escape(title) + "</title>\n<style>text{stroke:none!important}" +
           lightRules + "@media(prefers-color-scheme:dark){" + darkRules + "}</style>\n" +
           "<rect class=\"bg\"" + attribute("width", width) + attribute("height", height) + "/>\n" +
           body_ + "</svg>\n";
}

std::string Svg::escape(const std::string &text)
{
    std::string result;
    for (const char character : text) {
        switch (character) {
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        case '&':
            result += "&amp;";
            break;
        case '"':
            result += "&quot;";
            break;
        default:
            // Other control characters have no place in XML.
            const bool isSpace = character == '\n' || character == '\t';
            result += static_cast<unsigned char>(character) < ' ' && !isSpace ? '?' : character;
        }
    }
    return result;
}

double Svg::textWidth(const std::string &text, double size)
{
    double characters = 0;
    for (const char character : text)
        characters += (static_cast<unsigned char>(character) & 0xc0) != 0x80 ? 1 : 0;
    return characters * size * 0.58;
}

} // namespace kelo
