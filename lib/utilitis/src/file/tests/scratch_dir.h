// A scratch directory for the file tests, removed with all it holds: its
// files by name, and what a search of it found.
#pragma once

#include <karu/file/dir.h>

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace karu_test {

class ScratchDir {
public:
    ScratchDir()
    {
        char pattern[] = "/tmp/karu-file-XXXXXX";
        path = mkdtemp(pattern);
    }
    ~ScratchDir() { std::system(("rm -rf '" + path + "'").c_str()); }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    std::string operator/(const std::string& name) const { return path + "/" + name; }
    Karu::stringEx At(const std::string& name) const { return Karu::stringEx((*this / name).c_str()); }
    bool Has(const std::string& name) const { return Karu::CDir::Exists(At(name)); }

    // Writes `content` as it stands, making the directories on the way.
    void Put(const std::string& name, const std::string& content) const
    {
        Karu::CDir::MakeDir(Karu::CDir::GetPathDir(At(name)), true);
        std::ofstream(*this / name, std::ios::binary | std::ios::trunc) << content;
    }
    // The content as it stands; a missing file reads so, unlike an empty one.
    std::string Get(const std::string& name) const
    {
        std::ifstream in(*this / name, std::ios::binary);
        if (!in)
            return "(missing)";
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }

    // The names of what a search found, below the directory, in the order
    // found or sorted.
    std::vector<std::string> Relative(const Karu::StringVector& found, bool sorted = true) const
    {
        std::vector<std::string> names;
        for (const Karu::stringEx& f : found)
            names.push_back(std::string(f.c_str()).substr(path.size() + 1));
        if (sorted)
            std::sort(names.begin(), names.end());
        return names;
    }

    std::string path;
};

}  // namespace karu_test
