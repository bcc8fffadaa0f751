#include "tvkctl/src/terminal/text_table.h"

#include <algorithm>

#include "common/text/text.h"

namespace tarvik::tvkctl {

namespace {

constexpr std::size_t kGap = 2;

} // namespace

text_table::text_table(std::vector<std::string> titles)
{
    std::vector<cell> row;
    row.reserve(titles.size());
    for (std::string& title : titles)
        row.push_back({std::move(title), style::bold});
    add(std::move(row));
}

void text_table::add(std::vector<cell> row)
{
    for (cell& c : row)
        c.text = harmless(c.text, keep::ascii, "?");
    m_rows.push_back(std::move(row));
}

void text_table::write(console& io) const
{
    std::vector<std::size_t> widths(m_rows.front().size(), 0);
    for (const auto& row : m_rows)
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], row[i].text.size());
    for (const auto& row : m_rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            io.out() << io.styled(row[i].how, row[i].text);
            if (i + 1 < row.size())
                io.out() << std::string(widths[i] - row[i].text.size() + kGap, ' ');
        }
        io.out() << '\n';
    }
}

} // namespace tarvik::tvkctl
