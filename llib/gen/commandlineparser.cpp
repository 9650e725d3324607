#include "llib/gen/commandlineparser.h"

namespace {

// Appends count characters to the string, growing it by exactly what they need.
void Append(LStringLongTemplate<char>& string, const char* text, unsigned int count) {
    if (count == 0)
        return;
    string.GrowToSize(string.nLength + count + 1);
    for (unsigned int i = 0; i < count; ++i)
        string.pData[string.nLength + i] = text[i];
    string.nLength += count;
    string.pData[string.nLength] = 0;
}

} // namespace

LCommandLineArgumentStringExpander::LCommandLineArgumentStringExpander(const char* commandLine)
    : pCursor(commandLine) {
    NextArgument();
}

bool LCommandLineArgumentStringExpander::NextArgument() {
    Argument.SetLength(0);
    if (pCursor == nullptr)
        return false;
    while (*pCursor >= 1 && *pCursor <= 32)
        ++pCursor;
    bool quoted = false;
    while (*pCursor != 0) {
        // A run of ordinary characters at once.
        const char* run = pCursor;
        while (*pCursor != 0 && *pCursor != '"' && *pCursor != '\\' && (quoted || *pCursor != ' '))
            ++pCursor;
        Append(Argument, run, static_cast<unsigned int>(pCursor - run));
        const char c = *pCursor;
        if (c == 0)
            break;
        ++pCursor;
        if (c == ' ')
            break; // outside quotes
        if (c == '"') {
            if (quoted)
                break;
            quoted = true;
        } else if (*pCursor == ' ') { // "\ " is an escaped space
            Append(Argument, " ", 1);
            ++pCursor;
        } else {
            Append(Argument, "\\", 1);
        }
    }
    return Argument.nLength > 0;
}
