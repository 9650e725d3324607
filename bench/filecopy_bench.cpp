// LFile::CopyFile (8192-byte pieces) and the chunked copy under a process interface (32768-byte
// chunks) against cp on the same 256 MB file, as times and ratios (best of three each, the
// destination deleted before every run).
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

#include "bench.h"
#include "llib/gen/file.h"
#include "llib/gen/filecopy.h"

namespace {

template <class Copy>
double BestOfThree(const std::string& destination, Copy copy) {
    double best = 1e9;
    for (int run = 0; run < 3; ++run) {
        unlink(destination.c_str());
        const double start = bench::Now();
        copy();
        best = std::min(best, bench::Now() - start);
    }
    unlink(destination.c_str());
    return best;
}

void FileCopy() {
    char folder[] = "/tmp/tavix-bench-XXXXXX";
    if (mkdtemp(folder) == nullptr)
        return;
    const std::string source = std::string(folder) + "/source.bin";
    const std::string destination = std::string(folder) + "/copy.bin";
    {
        // Varied bytes, so that no file system can store the file as holes.
        std::vector<char> block(1 << 20);
        for (size_t i = 0; i < block.size(); ++i)
            block[i] = static_cast<char>(i * 131 + 7);
        FILE* out = fopen(source.c_str(), "wb");
        for (int i = 0; out != nullptr && i < 256; ++i)
            fwrite(block.data(), 1, block.size(), out);
        if (out != nullptr)
            fclose(out);
    }
    const std::string command = "cp '" + source + "' '" + destination + "'";
    const double cp = BestOfThree(destination, [&] { (void)!system(command.c_str()); });
    const double copyFile =
        BestOfThree(destination, [&] { LFile::CopyFile(source.c_str(), destination.c_str()); });
    LProcessInterfaceVoid process;
    const double chunked = BestOfThree(destination, [&] {
        Process(process, LProcessCopyFile{source.c_str(), destination.c_str()});
    });
    bench::Print("256 MB file, cp", cp * 1000, "ms");
    bench::Print("256 MB file, LFile::CopyFile", copyFile * 1000, "ms");
    bench::Print("256 MB file, Process(LProcessCopyFile)", chunked * 1000, "ms");
    bench::Print("LFile::CopyFile / cp", copyFile / cp, "x");
    bench::Print("Process(LProcessCopyFile) / cp", chunked / cp, "x");
    unlink(source.c_str());
    rmdir(folder);
}

bench::Section filecopy("filecopy", &FileCopy);

} // namespace
