// A fresh folder under /tmp for one test, removed with everything in it at the end.
#pragma once

#include <string>

class TempFolder {
public:
    explicit TempFolder(const char* prefix = "tavix-test");
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    // The folder joined with name.
    std::string operator/(const std::string& name) const { return path + "/" + name; }
    std::string path; // empty when the folder could not be made
};

// A whole file's bytes ("" when it cannot be read), and a file made to hold exactly `bytes`.
std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes);
