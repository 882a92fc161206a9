#pragma once

#include <string>
#include <vector>

namespace View {

/** Text in columns as wide as what stands in them. */
class Table {
public:
    enum class Align { left, right };
    struct Column {
        std::string title;
        Align align;
    };

    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

    /** Missing cells are empty, those too many are left out. */
    void add(std::vector<std::string> row);
    /** The titles, then the rows; each line ends with a newline and has no blanks before it. */
    std::string text() const;

private:
    std::vector<Column> columns_;
    std::vector<std::vector<std::string>> rows_;
};

} // namespace View
