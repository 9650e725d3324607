// Splits a command line into arguments the way a shell-like host expects: blanks separate
// arguments, double quotes group, and a backslash before a space keeps the space.
#pragma once

#include "llib/gen/stringlong.h"

class LCommandLineArgumentStringExpander {
public:
    // Keeps the cursor (the caller keeps the text alive) and reads the first argument; a null
    // command line has no arguments.
    explicit LCommandLineArgumentStringExpander(const char* commandLine);
    LCommandLineArgumentStringExpander(const LCommandLineArgumentStringExpander&) = delete;
    LCommandLineArgumentStringExpander&
    operator=(const LCommandLineArgumentStringExpander&) = delete;

    // Reads the next argument into Argument; true when it is not empty. Characters 1 to 32
    // before it are skipped. Outside quotes a space ends it; '"' opens quotes, and a second '"'
    // ends the argument; "\ " stands for a space (a backslash before anything else is kept);
    // other characters, tabs inside an argument included, are taken as they are. An empty
    // quoted argument ("") reads as empty, which a caller looping on the result takes for the
    // end.
    bool NextArgument();

    const char* pCursor;                // where reading goes on
    LStringLongTemplate<char> Argument; // the current argument
};
