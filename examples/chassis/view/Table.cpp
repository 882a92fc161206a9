#include "view/Table.h"

#include <algorithm>

namespace View {

namespace {

/** Characters that a terminal shows: names may hold others than ASCII. */
std::size_t width(const std::string &text) {
    return static_cast<std::size_t>(std::count_if(
        text.begin(), text.end(), [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U; }));
}

void append(std::string &line, const std::string &cell, std::size_t columnWidth, Table::Align align) {
    const std::string blanks(columnWidth - width(cell), ' ');
    line += align == Table::Align::right ? blanks + cell : cell + blanks;
}

} // namespace

void Table::add(std::vector<std::string> row) {
    row.resize(columns_.size());
    rows_.push_back(std::move(row));
}

std::string Table::text() const {
    std::vector<std::size_t> widths;
    std::vector<std::string> titles;
    for (std::size_t i = 0; i < columns_.size(); ++i) {
        std::size_t widest = width(columns_[i].title);
        for (const auto &row : rows_) {
            widest = std::max(widest, width(row[i]));
        }
        widths.push_back(widest);
        titles.push_back(columns_[i].title);
    }
    std::string text;
    const auto addLine = [&](const std::vector<std::string> &cells) {
        std::string line;
        for (std::size_t i = 0; i < cells.size(); ++i) {
            line += i == 0 ? "" : "  ";
            append(line, cells[i], widths[i], columns_[i].align);
        }
        text += line.erase(line.find_last_not_of(' ') + 1) + "\n";
    };
    addLine(titles);
    std::for_each(rows_.begin(), rows_.end(), addLine);
    return text;
}

} // namespace View
