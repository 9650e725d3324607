// The wildcard matcher as its rules are stated, trying every split of every star: slow, but
// plainly right, for checking LFile::IsMatch against (the fuzz target and the unit test).
#pragma once

inline bool ReferenceMatch(const char* p, const char* n) {
    if (*p == 0)
        return *n == 0;
    if (*n == 0) {
        while (*p == '*')
            ++p;
        return *p == 0;
    }
    if (*p == *n || *p == '?')
        return ReferenceMatch(p + 1, n + 1);
    if (*p != '*')
        return false;
    if (p[1] == 0)
        return true;
    for (; *n != 0; ++n)
        if (ReferenceMatch(p + 1, n))
            return true;
    return false;
}
