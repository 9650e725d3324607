// The UTF-8 coder against glibc's iconv on the same text, and the buffered line reader against
// getline on the same file.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iconv.h>
#include <string>
#include <cwchar>
#include <unistd.h>
#include <vector>

#include "bench.h"
#include "llib/gen/charsets.h"
#include "llib/gen/utf8blocks.h"
#include "llib/unix/filehandle.h"

namespace {

// Text from pieces, cycled until it holds at least `bytes` bytes.
std::string MakeText(const std::vector<std::string>& pieces, size_t bytes) {
    std::string text;
    for (size_t i = 0; text.size() < bytes; ++i)
        text += pieces[i % pieces.size()];
    return text;
}

// English log and label text with now and then an accented letter.
const std::vector<std::string> kAsciiHeavy = {"The quick brown fox jumps over the lazy dog. ",
                                              "Capture session 42 started; ",
                                              "frames=1800 drops=0 ",
                                              "caf\xC3\xA9 ",
                                              "timecode 01:02:03:04\n",
                                              "/home/someone/Videos/Recordings/capture-0042.mov "};

// Paragraphs in several languages: French, Russian, Japanese, Greek, Chinese with emoji.
const std::vector<std::string> kMultilingual = {
    "Le cam\xC3\xA9raman enregistre la sc\xC3\xA8ne pendant que l'\xC3\xA9quipe pr\xC3\xA9pare "
    "la prochaine prise; \xC3\xA0 c\xC3\xB4t\xC3\xA9, le d\xC3\xA9"
    "cor est d\xC3\xA9j\xC3\xA0 "
    "\xC3\xA9"
    "clair\xC3\xA9. ",
    "\xD0\x9A\xD0\xB0\xD0\xBC\xD0\xB5\xD1\x80\xD0\xB0 \xD0\xB7\xD0\xB0\xD0\xBF\xD0\xB8\xD1"
    "\x81\xD1\x8B\xD0\xB2\xD0\xB0\xD0\xB5\xD1\x82 \xD1\x81\xD1\x86\xD0\xB5\xD0\xBD\xD1\x83, "
    "\xD0\xBF\xD0\xBE\xD0\xBA\xD0\xB0 \xD0\xB3\xD1\x80\xD1\x83\xD0\xBF\xD0\xBF\xD0\xB0 "
    "\xD0\xB3\xD0\xBE\xD1\x82\xD0\xBE\xD0\xB2\xD0\xB8\xD1\x82 \xD1\x81\xD0\xBB\xD0\xB5\xD0"
    "\xB4\xD1\x83\xD1\x8E\xD1\x89\xD0\xB8\xD0\xB9 \xD0\xB4\xD1\x83\xD0\xB1\xD0\xBB\xD1\x8C. ",
    "\xE3\x82\xAB\xE3\x83\xA1\xE3\x83\xA9\xE3\x81\xAF\xE6\x92\xAE\xE5\xBD\xB1\xE3\x83\x81"
    "\xE3\x83\xBC\xE3\x83\xA0\xE3\x81\x8C\xE6\xAC\xA1\xE3\x81\xAE\xE3\x83\x86\xE3\x82\xA4"
    "\xE3\x82\xAF\xE3\x82\x92\xE6\xBA\x96\xE5\x82\x99\xE3\x81\x97\xE3\x81\xA6\xE3\x81\x84"
    "\xE3\x82\x8B\xE9\x96\x93\xE3\x81\xAB\xE3\x82\xB7\xE3\x83\xBC\xE3\x83\xB3\xE3\x82\x92"
    "\xE8\xA8\x98\xE9\x8C\xB2\xE3\x81\x97\xE3\x81\xBE\xE3\x81\x99\xE3\x80\x82",
    "\xCE\x97 \xCE\xBA\xCE\xAC\xCE\xBC\xCE\xB5\xCF\x81\xCE\xB1 \xCE\xBA\xCE\xB1\xCF\x84\xCE"
    "\xB1\xCE\xB3\xCF\x81\xCE\xAC\xCF\x86\xCE\xB5\xCE\xB9 \xCF\x84\xCE\xB7 \xCF\x83\xCE\xBA"
    "\xCE\xB7\xCE\xBD\xCE\xAE. ",
    "\xE6\x91\x84\xE5\x83\x8F\xE6\x9C\xBA\xE5\x9C\xA8\xE6\x91\x84\xE5\x88\xB6\xE7\xBB\x84"
    "\xE5\x87\x86\xE5\xA4\x87\xE4\xB8\x8B\xE4\xB8\x80\xE4\xB8\xAA\xE9\x95\x9C\xE5\xA4\xB4"
    "\xE6\x97\xB6\xE8\xAE\xB0\xE5\xBD\x95\xE5\x9C\xBA\xE6\x99\xAF\xE3\x80\x82\xF0\x9F\x8E"
    "\xA5\xF0\x9F\x8E\xAC "};

// Scripts changing every word, the hardest case for a coder's branches.
const std::vector<std::string> kScriptPerWord = {
    "Gr\xC3\xBC\xC3\x9F"
    "e ",
    "\xCE\xBA\xCE\xB1\xCE\xBB\xCE\xB7\xCE\xBC\xCE\xAD\xCF\x81\xCE\xB1 ",
    "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E ",
    "\xF0\x9F\x98\x80 ",
    "ascii ",
    "\xD0\xBF\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82 "};

// MB/s of `bytes` per call: the best of one round of calls lasting 20 ms.
template <class Convert>
double RoundRate(size_t bytes, Convert& convert) {
    int calls = 0;
    const double begin = bench::Now();
    double elapsed = 0;
    do {
        for (int i = 0; i < 16; ++i)
            convert();
        calls += 16;
        elapsed = bench::Now() - begin;
    } while (elapsed < 0.02);
    return double(bytes) * calls / 1e6 / elapsed;
}

struct Rates {
    double ours = 0;
    double theirs = 0;
};

// The best rate of each of two conversions of the same `bytes`, measured in alternating rounds
// so that both meet the same moments of a shared machine.
template <class Ours, class Theirs>
Rates RatesOf(size_t bytes, Ours ours, Theirs theirs) {
    ours(); // warm up
    theirs();
    Rates best;
    for (int round = 0; round < 9; ++round) {
        const double a = RoundRate(bytes, ours);
        const double b = RoundRate(bytes, theirs);
        best.ours = a > best.ours ? a : best.ours;
        best.theirs = b > best.theirs ? b : best.theirs;
    }
    return best;
}

// One iconv call over a whole text, from the converter's initial state.
size_t Iconv(iconv_t converter, const void* in, size_t inBytes, void* out, size_t outBytes) {
    iconv(converter, nullptr, nullptr, nullptr, nullptr);
    char* input = static_cast<char*>(const_cast<void*>(in));
    char* output = static_cast<char*>(out);
    size_t outLeft = outBytes;
    iconv(converter, &input, &inBytes, &output, &outLeft);
    return outBytes - outLeft;
}

void PrintComparison(const char* what, Rates rates, bool same) {
    const double ours = rates.ours, theirs = rates.theirs;
    char line[160];
    snprintf(line, sizeof line, "%s: ours", what);
    bench::Print(line, ours, "MB/s");
    snprintf(line, sizeof line, "%s: iconv", what);
    bench::Print(line, theirs, "MB/s");
    snprintf(line, sizeof line, "%s: speed-up", what);
    bench::Print(line, ours / theirs, same ? "x (same result)" : "x (RESULTS DIFFER)");
}

// The same text as one 64 KB block (it and its output stay in the caches) and as short texts of
// 16 to 120 bytes such as names, paths and labels, each converted by one call.
void CompareCoders(const char* label, const std::vector<std::string>& pieces) {
    const std::string block = MakeText(pieces, 64 << 10);
    std::vector<std::string> shortTexts;
    for (size_t at = 0, length = 16; at + 120 < block.size() && shortTexts.size() < 2000;
         length = 16 + (length * 37) % 105) {
        size_t end = at + length;
        while ((static_cast<unsigned char>(block[end]) & 0xC0) == 0x80)
            ++end; // whole characters
        shortTexts.push_back(block.substr(at, end - at));
        at = end;
    }
    size_t shortBytes = 0;
    for (const auto& text : shortTexts)
        shortBytes += text.size();

    iconv_t decoder = iconv_open("WCHAR_T", "UTF-8");
    iconv_t encoder = iconv_open("UTF-8", "WCHAR_T");
    // The decoder takes at most size - 1 source bytes: the destination is as long as the text
    // in bytes.
    std::vector<wchar_t> wide(block.size() + 1), wideIconv(block.size() + 1);
    std::vector<char> narrow(block.size() + 1), narrowIconv(block.size() + 1);
    const size_t characters = utf8strlen(block.c_str());

    char line[160];
    snprintf(line, sizeof line, "%s, 64 KB, UTF-8 -> UTF-32", label);
    const Rates decode = RatesOf(
        block.size(), [&] { LCopyUTF32FromUTF8(wide.data(), block.c_str(), wide.size()); },
        [&] {
            Iconv(decoder, block.data(), block.size(), wideIconv.data(),
                  characters * sizeof(wchar_t));
        });
    PrintComparison(line, decode,
                    memcmp(wide.data(), wideIconv.data(), characters * sizeof(wchar_t)) == 0 &&
                        wide[characters] == 0);

    snprintf(line, sizeof line, "%s, 64 KB, UTF-32 -> UTF-8", label);
    const Rates encode = RatesOf(
        block.size(), [&] { LCopyUTF8FromUTF32(narrow.data(), wide.data(), narrow.size()); },
        [&] {
            Iconv(encoder, wide.data(), characters * sizeof(wchar_t), narrowIconv.data(),
                  block.size());
        });
    PrintComparison(line, encode,
                    block == narrow.data() &&
                        memcmp(narrowIconv.data(), block.data(), block.size()) == 0);

    // Short texts: every conversion is one call into a 260-character destination.
    wchar_t shortWide[260], shortWideIconv[260];
    char shortNarrow[260], shortNarrowIconv[260];
    bool same = true;
    for (const auto& text : shortTexts) {
        LCopyUTF32FromUTF8(shortWide, text.c_str(), 260);
        const size_t n =
            Iconv(decoder, text.c_str(), text.size() + 1, shortWideIconv, sizeof shortWideIconv);
        same = same && n == (wcslen(shortWide) + 1) * sizeof(wchar_t) &&
               memcmp(shortWide, shortWideIconv, n) == 0;
    }
    snprintf(line, sizeof line, "%s, short texts, UTF-8 -> UTF-32", label);
    PrintComparison(line,
                    RatesOf(
                        shortBytes,
                        [&] {
                            for (const auto& text : shortTexts)
                                LCopyUTF32FromUTF8(shortWide, text.c_str(), 260);
                        },
                        [&] {
                            for (const auto& text : shortTexts)
                                Iconv(decoder, text.c_str(), text.size() + 1, shortWideIconv,
                                      sizeof shortWideIconv);
                        }),
                    same);

    std::vector<std::vector<wchar_t>> shortWides;
    for (const auto& text : shortTexts) {
        shortWides.emplace_back(text.size() + 1);
        LCopyUTF32FromUTF8(shortWides.back().data(), text.c_str(), text.size() + 1);
    }
    same = true;
    for (size_t i = 0; i < shortTexts.size(); ++i) {
        LCopyUTF8FromUTF32(shortNarrow, shortWides[i].data(), 260);
        const size_t n = Iconv(encoder, shortWides[i].data(),
                               (wcslen(shortWides[i].data()) + 1) * sizeof(wchar_t),
                               shortNarrowIconv, sizeof shortNarrowIconv);
        same = same && shortTexts[i] == shortNarrow && n == shortTexts[i].size() + 1 &&
               memcmp(shortNarrowIconv, shortNarrow, n) == 0;
    }
    snprintf(line, sizeof line, "%s, short texts, UTF-32 -> UTF-8", label);
    PrintComparison(line,
                    RatesOf(
                        shortBytes,
                        [&] {
                            for (const auto& wideText : shortWides)
                                LCopyUTF8FromUTF32(shortNarrow, wideText.data(), 260);
                        },
                        [&] {
                            for (const auto& wideText : shortWides)
                                Iconv(encoder, wideText.data(),
                                      (wcslen(wideText.data()) + 1) * sizeof(wchar_t),
                                      shortNarrowIconv, sizeof shortNarrowIconv);
                        }),
                    same);

    iconv_close(decoder);
    iconv_close(encoder);
}

void Coders() {
    CompareCoders("ASCII-heavy", kAsciiHeavy);
    CompareCoders("multilingual", kMultilingual);
    CompareCoders("script per word", kScriptPerWord);
}

bench::Section coders("utf8", &Coders);

// The same with the coders limited to AVX2 (or less, when the processor has less), as on the
// many processors without AVX-512.
void CodersWithAvx2() {
    llib_utf8::LimitBlockLevel(llib_utf8::kBlocksAvx2);
    Coders();
    llib_utf8::LimitBlockLevel(llib_utf8::kBlocksAvx512);
}

bench::Section codersWithAvx2("utf8-avx2", &CodersWithAvx2);

// A file of lines of varied lengths, some of them longer than the reader's buffer.
std::string MakeLinesFile() {
    char path[] = "/tmp/tavix_bench_lines_XXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0)
        return std::string();
    std::string chunk;
    unsigned int seed = 12345;
    while (chunk.size() < (64u << 20)) {
        seed = seed * 1103515245u + 12345u;
        const unsigned int length = (seed >> 16) % 160 == 0 ? 10000 : (seed >> 16) % 120;
        chunk.append(length, static_cast<char>('a' + seed % 26));
        chunk += '\n';
    }
    const bool written =
        write(fd, chunk.data(), chunk.size()) == static_cast<ssize_t>(chunk.size());
    close(fd);
    if (!written) {
        unlink(path);
        return std::string();
    }
    return path;
}

void Lines() {
    const std::string path = MakeLinesFile();
    if (path.empty()) {
        printf("  could not write the test file in /tmp\n");
        return;
    }
    double bestOurs = 1e9, bestGetline = 1e9;
    unsigned long linesOurs = 0, linesGetline = 0, bytesOurs = 0, bytesGetline = 0;
    static char text[16384];
    for (int round = 0; round < 5; ++round) {
        LReadFileBuffered reader(path.c_str());
        linesOurs = bytesOurs = 0;
        double begin = bench::Now();
        while (reader.ReadLine(text, sizeof text)) {
            ++linesOurs;
            bytesOurs += strlen(text);
        }
        const double ours = bench::Now() - begin;

        FILE* file = fopen(path.c_str(), "r");
        char* line = nullptr;
        size_t capacity = 0;
        linesGetline = bytesGetline = 0;
        begin = bench::Now();
        ssize_t length;
        while ((length = getline(&line, &capacity, file)) >= 0) {
            ++linesGetline;
            bytesGetline += static_cast<unsigned long>(length) - 1; // without its LF
        }
        const double theirs = bench::Now() - begin;
        free(line);
        fclose(file);
        if (ours < bestOurs)
            bestOurs = ours;
        if (theirs < bestGetline)
            bestGetline = theirs;
    }
    unlink(path.c_str());
    bench::Print("64 MB of lines, LReadFileBuffered::ReadLine", bestOurs * 1000, "ms");
    bench::Print("64 MB of lines, getline", bestGetline * 1000, "ms");
    bench::Print("ReadLine / getline", bestOurs / bestGetline,
                 linesOurs == linesGetline && bytesOurs == bytesGetline
                     ? "x time (same lines)"
                     : "x time (DIFFERENT lines)");
}

bench::Section lines("readline", &Lines);

} // namespace
