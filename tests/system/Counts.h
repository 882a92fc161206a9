#pragma once

#include <sstream>
#include <string>
#include <utility>

namespace Testing {

/** What an actor's library holds, by name: the answer to the command "counts". */
struct Counts {
    explicit Counts(std::string line) : text(std::move(line)) {}
    long operator[](const std::string &name) const {
        std::istringstream words(text);
        std::string word;
        long value = -1;
        while (words >> word >> value) {
            if (word == name) {
                return value;
            }
        }
        return -1;
    }
    const std::string text;
};

} // namespace Testing
