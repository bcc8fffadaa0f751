#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "tvkctl/src/terminal/console.h"

namespace tarvik::tvkctl {

/// Columns side by side, each as wide as its widest cell, for a terminal.
class text_table {
public:
    struct cell {
        std::string text;
        style how = style::plain;
    };

    explicit text_table(std::vector<std::string> titles);

    /// As many cells as there are titles. Foreign text is shown with '?' for control and non-ASCII bytes.
    void add(std::vector<cell> row);
    void write(console& io) const;

private:
    std::vector<std::vector<cell>> m_rows; ///< the titles first
};

} // namespace tarvik::tvkctl
