#include "support/tempfolder.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <vector>

TempFolder::TempFolder(const char* prefix) {
    std::string pattern = std::string("/tmp/") + prefix + "-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back(0);
    if (mkdtemp(name.data()) != nullptr)
        path = name.data();
}

TempFolder::~TempFolder() {
    if (!path.empty())
        (void)!system(("rm -rf '" + path + "'").c_str());
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}
