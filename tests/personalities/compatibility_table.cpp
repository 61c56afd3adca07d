#include "tests/personalities/compatibility_table.h"

#include <algorithm>
#include <stdexcept>

namespace personalities {
namespace {

constexpr std::size_t kColumns = 5;
constexpr std::string_view kFirstColumn = "Library or program";

std::string Trimmed(std::string_view text)
{
    const std::size_t begin = text.find_first_not_of(' ');
    if (begin == std::string_view::npos)
        return "";
    return std::string(text.substr(begin, text.find_last_not_of(' ') - begin + 1));
}

// "| a | b |" as its cells; nothing for other lines.
std::vector<std::string> Cells(std::string_view line)
{
    std::vector<std::string> cells;
    while (line.starts_with('|') && line.size() > 1) {
        line.remove_prefix(1);
        const std::string_view cell = line.substr(0, line.find('|'));
        cells.push_back(Trimmed(cell));
        line.remove_prefix(cell.size());
    }
    return cells;
}

std::string Compare(const char* what, const std::string& written, const std::string& found)
{
    return written == found ? "" : std::string(what) + " says: " + written + "\n    it is: " + found + "\n";
}

} // namespace

Table ParseTable(std::string_view document)
{
    Table table;
    bool inside = false;
    const auto take = [&](std::string_view line) {
        const std::vector<std::string> cells = Cells(line);
        const bool header = !cells.empty() && cells[0] == kFirstColumn;
        inside = header || (inside && !cells.empty());
        if (!inside || header || cells[0].starts_with("--"))
            return;
        if (cells.size() != kColumns)
            throw std::runtime_error("not five cells: " + std::string(line));
        if (!table.emplace(cells[0], TableRow{cells[1], cells[2], cells[3], cells[4]}).second)
            throw std::runtime_error("two rows for " + cells[0]);
    };
    for (std::size_t end = 0; !document.empty(); document.remove_prefix(std::min(end + 1, document.size()))) {
        end = std::min(document.find('\n'), document.size());
        take(document.substr(0, end));
    }
    if (table.empty())
        throw std::runtime_error("there is no table of libraries");
    return table;
}

std::string Disagreement(const TableRow& row, const Outcome& outcome)
{
    std::string text = Compare("the result", row.result, outcome.Result()) +
                       Compare("what it notices", row.notices, outcome.Notices()) +
                       Compare("what it does without the module", row.unplugged, outcome.Unplugged());
    if (row.result != "works" && (row.advice.empty() || row.advice == "-"))
        text += "its user is not told what to do\n";
    return text;
}

} // namespace personalities
