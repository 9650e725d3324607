// Comma-separated items: every call moves forward or stops at the line end, and each item fits
// its destination (an exact heap buffer of the size given).
#include <cstring>
#include <memory>

#include "fuzz_input.h"
#include "llib/gen/stringparse.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    const unsigned long itemSize = input.Number() % 300;
    const std::string line = input.Text();
    std::unique_ptr<char[]> item(new char[itemSize > 0 ? itemSize : 1]);
    unsigned long position = 0;
    for (;;) {
        const char c = line.c_str()[position];
        if (c == 0 || c == '\n' || c == '\r')
            break;
        const unsigned long before = position;
        const bool found = GetCSVListItem(line.c_str(), position, item.get(), itemSize);
        FUZZ_CHECK(position > before && position <= line.size());
        if (itemSize > 0)
            FUZZ_CHECK(strlen(item.get()) < itemSize && found == (item.get()[0] != 0));
    }
    // The other field readers on the same text.
    std::unique_ptr<char[]> field(new char[itemSize > 0 ? itemSize : 1]);
    const std::string start = input.Text();
    const std::string end = input.Text();
    FindTextField(line.c_str(), start.c_str(), end.c_str(), field.get(), itemSize);
    std::unique_ptr<char[]> encoded(new char[260]);
    LURIEncode(encoded.get(), line.c_str());
    FUZZ_CHECK(strlen(encoded.get()) < 260);
    std::string query = line;
    LRemoveHTTPItem(start.c_str(), &query[0]);
    FUZZ_CHECK(strlen(query.c_str()) <= line.size());
    return 0;
}
