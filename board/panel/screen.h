/// The terminal while the panel has it: taken as a whole, given back as it was whatever happens.

#pragma once

#include "process.h"

#include <string>

namespace kelo::panel {

/// Colours by their meaning; without colours in the terminal, or with NO_COLOR set, they are told
/// by text and brightness alone.
enum class Colour { Plain, Good, Warning, Bad, Cool, Accent, Title };

class Screen {
public:
    /// Throws std::runtime_error that says why this is no terminal for a panel.
    Screen();
    ~Screen();
    Screen(const Screen &) = delete;
    Screen &operator=(const Screen &) = delete;

    int rows() const;
    int columns() const;
    /// Whether the terminal takes more than ASCII.
    bool unicode() const { return unicode_; }

    /// Whether the terminal went away.
    bool gone() const;
    /// The next key, or byte of a character beyond ASCII, KEY_RESIZE included; -1 when there is
    /// none.
    int key();

    void clear();
    void show();
    /// Writes a text from a column on, at most `width` columns of it. The text may be UTF-8 where
    /// unicode() holds, of characters that take one column each.
    void put(int row, int column, int width, const std::string &text, Colour colour = Colour::Plain,
             unsigned attributes = 0);
    /// A text of one character over and over.
    void fill(int row, int column, int width, const char *character, Colour colour = Colour::Plain,
              unsigned attributes = 0);

    /// How many bytes of a text fit into so many columns.
    static size_t bytes(const std::string &text, int width);

    static constexpr unsigned BOLD = 1;
    static constexpr unsigned REVERSE = 2;
    static constexpr unsigned DIM = 4;

private:
    void giveBackErrors();

    bool unicode_ = false;
    bool colours_ = false;
    Descriptor errors_; ///< what was written to standard error meanwhile
    Descriptor standardError_;
};

} // namespace kelo::panel
