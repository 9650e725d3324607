// The shared library's dynamic symbol table is its interface: the capture and utility layers'
// names and nothing of the platform layer, the standard library or FFmpeg.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

std::vector<std::string> RunLines(const std::string& command) {
    std::vector<std::string> lines;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return lines;
    char line[4096];
    while (fgets(line, sizeof line, pipe) != nullptr) {
        std::string text(line);
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
            text.pop_back();
        lines.push_back(text);
    }
    pclose(pipe);
    return lines;
}

// Demangled names of the defined dynamic symbols.
std::vector<std::string> ExportedNames() {
    std::vector<std::string> names;
    for (const auto& line :
         RunLines(std::string("nm -D --defined-only -C ") + TAVIX_LIBRARY_FILE + " 2>&1")) {
        // "address type name"
        auto first = line.find(' ');
        auto second = first == std::string::npos ? first : line.find(' ', first + 1);
        if (second != std::string::npos)
            names.push_back(line.substr(second + 1));
    }
    return names;
}

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

} // namespace

TEST(Exports, LibraryHasItsSoname) {
    auto lines = RunLines(std::string("readelf -d ") + TAVIX_LIBRARY_FILE);
    bool found = false;
    for (const auto& line : lines)
        found = found || line.find("Library soname: [libtavix.so.1]") != std::string::npos;
    EXPECT_TRUE(found);
}

TEST(Exports, OnlyTheLibrarysOwnNamesAreExported) {
    auto names = ExportedNames();
    ASSERT_FALSE(names.empty());
    const char* foreign[] = {"std::",
                             "NS",
                             "QT",
                             "CV",
                             "Audio",
                             "av_",
                             "sws_",
                             "swr_",
                             "platform::",
                             "vtable for std",
                             "typeinfo for std"};
    for (const auto& name : names) {
        for (const char* prefix : foreign)
            EXPECT_FALSE(StartsWith(name, prefix)) << name;
    }
}
