#pragma once

/** What the command line asks for. */
struct Options {
    unsigned slot = 0;
    bool help = false;
};

/** False, and a line on standard error, if it makes no sense. */
bool parse(int argc, char **argv, Options &options);
void printHelp();
