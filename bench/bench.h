// The benchmark program's small frame: each bench/*.cpp file registers sections that measure
// something and print their figures; `tavix_bench` runs every section, `tavix_bench NAME...`
// only the named ones.
#pragma once

#include <chrono>
#include <cstdio>

namespace bench {

using Function = void (*)();

// Registers a section at static-initialisation time; sections run in name order.
struct Section {
    Section(const char* name, Function run);
};

// Monotonic seconds, for measuring elapsed time.
inline double Now() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

// CPU seconds used by the whole process so far.
double ProcessCpuSeconds();

// Prints one figure as an aligned "label  value unit" line.
void Print(const char* label, double value, const char* unit);

// Keeps the compiler from discarding a computed value.
template <class T>
inline void KeepAlive(const T& value) {
    asm volatile("" : : "r,m"(value) : "memory");
}

} // namespace bench
