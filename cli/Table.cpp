#include "Table.h"

#include <algorithm>

namespace tavrin_cli {

void Table::print(FILE* out) const {
    std::vector<size_t> widths;
    for (const auto& row : mRows) {
        if (widths.size() < row.size()) widths.resize(row.size(), 0);
        for (size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], row[column].size());
        }
    }
    for (const auto& row : mRows) {
        std::string line;
        for (size_t column = 0; column < row.size(); ++column) {
            line += row[column];
            if (column + 1 < row.size())
                line += std::string(widths[column] - row[column].size() + 2, ' ');
        }
        fprintf(out, "%s\n", line.c_str());
    }
}

}  // namespace tavrin_cli
