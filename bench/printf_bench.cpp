// tplsnprintf against the C library's snprintf on the same mixed formats.
#include <cstdio>

#include "bench.h"
#include "llib/gen/stringtools.h"

namespace {

template <class Format>
double TimeIt(Format format, int rounds) {
    const double begin = bench::Now();
    for (int i = 0; i < rounds; ++i)
        format(i);
    return bench::Now() - begin;
}

void Compare(const char* label, int rounds, void (*ours)(int), void (*theirs)(int)) {
    TimeIt(ours, rounds / 10); // warm up
    TimeIt(theirs, rounds / 10);
    const double engine = TimeIt(ours, rounds);
    const double library = TimeIt(theirs, rounds);
    char text[160];
    snprintf(text, sizeof text, "%s: tplsnprintf / snprintf", label);
    bench::Print(text, engine / library, "x time");
}

char buffer[512];
const char* const name = "tavix test camera";
const char* const path = "/home/someone/Videos/Recordings/2026/capture-session-0042.mov";

void TextOurs(int i) {
    bench::KeepAlive(tplsnprintf(buffer, sizeof buffer, "The device %s records into %s for you.",
                                 name, i & 1 ? path : name));
}
void TextTheirs(int i) {
    bench::KeepAlive(snprintf(buffer, sizeof buffer, "The device %s records into %s for you.", name,
                              i & 1 ? path : name));
}
void MixedOurs(int i) {
    bench::KeepAlive(
        tplsnprintf(buffer, sizeof buffer, "frame %d of %s at %x: %.2f ms", i, name, i, i * 0.01));
}
void MixedTheirs(int i) {
    bench::KeepAlive(
        snprintf(buffer, sizeof buffer, "frame %d of %s at %x: %.2f ms", i, name, i, i * 0.01));
}
void NumbersOurs(int i) {
    bench::KeepAlive(tplsnprintf(buffer, sizeof buffer, "%d %d %x", i, -i, i));
}
void NumbersTheirs(int i) {
    bench::KeepAlive(snprintf(buffer, sizeof buffer, "%d %d %x", i, -i, i));
}

void PrintfEngine() {
    Compare("text and %s", 1000000, &TextOurs, &TextTheirs);
    Compare("mixed: text, %s, %d, %x, %.2f", 500000, &MixedOurs, &MixedTheirs);
    Compare("numbers only: %d %d %x", 500000, &NumbersOurs, &NumbersTheirs);
}

bench::Section section("printf", &PrintfEngine);

} // namespace
