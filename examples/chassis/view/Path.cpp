#include "view/Path.h"

#include <algorithm>
#include <cstdio>
#include <numeric>

namespace View {

namespace {

const std::string kRoot = "chassis";

std::size_t distance(const std::string &from, const std::string &to) {
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < from.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 0; j < to.size(); ++j) {
            const std::size_t changed = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

} // namespace

bool parsePath(const std::string &text, Path &path) {
    path.clear();
    std::string rest = text;
    if (!rest.empty() && rest.front() == '/') {
        rest.erase(0, 1);
    }
    if (rest.empty() || rest == kRoot) {
        return !text.empty();
    }
    if (rest.back() == '/') {
        rest.pop_back();
    }
    for (std::size_t begin = 0; begin <= rest.size();) {
        const std::size_t end = std::min(rest.find('/', begin), rest.size());
        path.push_back(rest.substr(begin, end - begin));
        begin = end + 1;
    }
    if (path.front() == kRoot) {
        path.erase(path.begin());
    }
    return std::none_of(path.begin(), path.end(), [](const std::string &name) { return name.empty(); });
}

std::string pathText(const Path &path) {
    std::string text = "/" + kRoot;
    for (const std::string &name : path) {
        text += "/" + printable(name);
    }
    return text;
}

std::vector<std::string> nearest(const std::string &name, std::vector<std::string> names, std::size_t count) {
    std::stable_sort(names.begin(), names.end(), [&name](const std::string &a, const std::string &b) {
        return distance(name, a) < distance(name, b);
    });
    names.resize(std::min(names.size(), count));
    return names;
}

std::string joined(const std::vector<std::string> &names) {
    std::string text;
    for (const std::string &name : names) {
        text += (text.empty() ? "" : ", ") + printable(name);
    }
    return text;
}

std::string counted(std::size_t count, const std::string &noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string printable(const std::string &name) {
    std::string text;
    for (const char byte : name) {
        const auto code = static_cast<unsigned char>(byte);
        if (code < 0x20 || code == 0x7F) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", code);
            text += escaped;
        } else {
            text += byte;
        }
    }
    return text;
}

} // namespace View
