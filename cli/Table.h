#pragma once

#include <stdio.h>

#include <string>
#include <vector>

namespace tavrin_cli {

// Rows printed in columns as wide as their widest cell; the last column is
// not padded. Used on one thread.
class Table {
  public:
    explicit Table(std::vector<std::string> header) { mRows.push_back(std::move(header)); }
    void add(std::vector<std::string> row) { mRows.push_back(std::move(row)); }
    void print(FILE* out) const;

  private:
    std::vector<std::vector<std::string>> mRows;
};

}  // namespace tavrin_cli
