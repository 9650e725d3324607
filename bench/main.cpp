#include "bench.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace bench {
namespace {

struct Entry {
    std::string name;
    Function run;
};

std::vector<Entry>& Registry() {
    static std::vector<Entry> entries;
    return entries;
}

} // namespace

Section::Section(const char* name, Function run) {
    Registry().push_back({name, run});
}

double ProcessCpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

void Print(const char* label, double value, const char* unit) {
    std::printf("  %-58s %12.3f %s\n", label, value, unit);
    std::fflush(stdout);
}

} // namespace bench

int main(int argc, char** argv) {
    auto entries = bench::Registry();
    std::sort(entries.begin(), entries.end(),
              [](const auto& a, const auto& b) { return a.name < b.name; });
    int ran = 0;
    for (const auto& entry : entries) {
        bool wanted = argc < 2;
        for (int i = 1; i < argc; ++i)
            wanted = wanted || entry.name == argv[i];
        if (!wanted)
            continue;
        std::printf("%s\n", entry.name.c_str());
        entry.run();
        ++ran;
    }
    if (ran == 0) {
        std::fprintf(stderr, "no benchmark section matched; sections:");
        for (const auto& entry : entries)
            std::fprintf(stderr, " %s", entry.name.c_str());
        std::fprintf(stderr, "\n");
        return 1;
    }
    return 0;
}
