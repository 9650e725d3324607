// The path operations on arbitrary texts, each output an exact 260-byte heap buffer (so
// AddressSanitizer sees any write past it), checked to be terminated inside it.
#include <cstring>
#include <memory>

#include "fuzz_input.h"
#include "llib/gen/file.h"

namespace {

struct PathBuffer {
    PathBuffer() : bytes(new char[260]) { memset(bytes.get(), 'x', 260); }
    char* get() { return bytes.get(); }
    void CheckTerminated() { FUZZ_CHECK(memchr(bytes.get(), 0, 260) != nullptr); }
    std::unique_ptr<char[]> bytes;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    const unsigned int selector = input.Number();
    const std::string path = input.Text();
    const std::string base = input.Text();
    const std::string extension = input.Text();

    void (*const splitters[])(char*, const char*) = {
        &LFile::_GetFolderFromPath,        &LFile::_GetBaseFolderFromPath,
        &LFile::_GetFileFromPath,          &LFile::_GetFileNameFromPath,
        &LFile::_GetFileExtensionFromPath, &LFile::GetHumanReadableDriveFromPath};
    for (auto split : splitters) {
        PathBuffer out;
        split(out.get(), path.c_str());
        out.CheckTerminated();
    }
    PathBuffer out;
    LFile::_ApplyNewFileExtension(out.get(), path.c_str(), extension.c_str());
    out.CheckTerminated();
    LFile::_MakeFilePath(out.get(), base.c_str(), path.c_str(), extension.c_str());
    out.CheckTerminated();
    LFile::MakeAbsoluteFilePath(out.get(), base.c_str(), path.c_str(), extension.c_str());
    out.CheckTerminated();
    if (!base.empty()) {
        LFile::MakeRelativeFilePath(out.get(), base.c_str(), path.c_str());
        out.CheckTerminated();
    }
    const bool fits = LFile::GetRelativePathFromAbsolutePath(out.get(), base.c_str(), path.c_str());
    out.CheckTerminated();
    FUZZ_CHECK(fits || out.get()[0] == 0);
    const bool named = LFile::PreprocessName(path.c_str(), out.get());
    out.CheckTerminated();
    FUZZ_CHECK(named == (out.get()[0] != 0));
    LFile::PreprocessPath(path.c_str(), out.get());
    out.CheckTerminated();
    LFile::EscapeFilePath(path.c_str(), out.get());
    out.CheckTerminated();
    LFile::GetSizeFormattedBytes(static_cast<unsigned long long>(selector) << (selector % 48),
                                 out.get());
    out.CheckTerminated();
    tstrcmpend(path.c_str(), extension.c_str());

    // In place, as the library's own callers do.
    PathBuffer inPlace;
    strncpy(inPlace.get(), path.c_str(), 259);
    inPlace.get()[259] = 0;
    LFile::_ApplyNewFileExtension(inPlace.get(), inPlace.get(), extension.c_str());
    inPlace.CheckTerminated();
    LFile::_MakeFilePath(inPlace.get(), inPlace.get(), extension.c_str(), "");
    inPlace.CheckTerminated();
    return 0;
}
