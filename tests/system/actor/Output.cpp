#include "Output.h"

#include <cstdarg>
#include <cstdio>
#include <iostream>
#include <mutex>

void say(const char *format, ...) {
    static std::mutex &lock = *new std::mutex; // lines are written until the very end of the process
    const std::lock_guard<std::mutex> guard(lock);
    va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
    std::putchar('\n');
    std::fflush(stdout);
}

bool nextLine(std::string &line) {
    return static_cast<bool>(std::getline(std::cin, line));
}
