// Wildcard matching: agrees with trying every split of every star on short texts, and answers
// quickly on any (libFuzzer's -timeout catches a slow one).
#include <cstring>

#include "fuzz_input.h"
#include "llib/gen/file.h"
#include "reference_match.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    const std::string pattern = input.Text();
    const std::string name = input.Text();
    const bool match = LFile::IsMatch(pattern.c_str(), name.c_str());
    size_t stars = 0;
    for (char c : pattern)
        stars += c == '*';
    // The reference is exponential in the stars: only for small cases.
    if (stars <= 6 && pattern.size() <= 24 && name.size() <= 24)
        FUZZ_CHECK(match == ReferenceMatch(pattern.c_str(), name.c_str()));
    LFile::IsMatchInsensitive(pattern.c_str(), name.c_str());
    return 0;
}
