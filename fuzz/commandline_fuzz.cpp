// Command-line splitting: ends, and never yields more argument text than the line holds.
#include <cstring>

#include "fuzz_input.h"
#include "llib/gen/commandlineparser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    const std::string line = input.Text();
    LCommandLineArgumentStringExpander expander(line.c_str());
    size_t total = 0;
    size_t count = 0;
    bool more = expander.Argument.nLength > 0;
    while (more) {
        FUZZ_CHECK(expander.Argument.nLength == strlen(expander.Argument.GetText()));
        FUZZ_CHECK(expander.Argument.nLength < expander.Argument.nSize);
        total += expander.Argument.nLength;
        FUZZ_CHECK(total <= line.size());
        FUZZ_CHECK(++count <= line.size());
        FUZZ_CHECK(expander.pCursor >= line.c_str() &&
                   expander.pCursor <= line.c_str() + line.size());
        more = expander.NextArgument();
    }
    return 0;
}
