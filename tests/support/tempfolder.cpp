#include "support/tempfolder.h"

#include <cstdlib>
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
