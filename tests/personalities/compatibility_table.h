// The table in docs/compatibility.md, as it is written there.
#pragma once

#include "tests/personalities/outcome.h"

#include <map>
#include <string>
#include <string_view>

namespace personalities {

struct TableRow {
    std::string result;
    std::string notices;
    std::string unplugged;
    std::string advice;
};
using Table = std::map<std::string, TableRow, std::less<>>; // by library

// The rows of the document's table whose first column is "Library or program". Throws std::runtime_error when
// there is no such table, a row has not five cells, or a library has two rows.
Table ParseTable(std::string_view document);

// Where the row says something else than the outcome, or leaves a user without advice; empty: it is true.
std::string Disagreement(const TableRow& row, const Outcome& outcome);

} // namespace personalities
