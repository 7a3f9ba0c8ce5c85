/// SVG pictures with colours for light and for dark pages.

#pragma once

#include <string>

namespace kelo {

class Svg {
public:
    enum class Anchor { Start, Middle, End };

    /// Shapes take the colours of a class: "bg" page, "ink" and "muted" for text and strokes,
    /// "grid" faint lines, "off" and "lit" LEDs, "busy" a LED that blinks too fast to be drawn,
    /// "band" a stretch of time that carries text, "mark" a moment.
    void rect(const char *style, double x, double y, double width, double height,
              double radius = 0);
    void line(const char *style, double x1, double y1, double x2, double y2);
    void text(const char *style, double x, double y, const std::string &text,
              Anchor anchor = Anchor::Start);
    void circle(const char *style, double x, double y, double radius);
    /// What another picture shows, on top.
    void add(const Svg &other) { body_ += other.body_; }

    /// The file.
    std::string finish(double width, double height, const std::string &title) const;

    static std::string escape(const std::string &text);
    /// Roughly what a text takes up.
    static double textWidth(const std::string &text, double size = FONT_SIZE);

    static constexpr double FONT_SIZE = 12;

private:
    std::string body_;
};

} // namespace kelo
