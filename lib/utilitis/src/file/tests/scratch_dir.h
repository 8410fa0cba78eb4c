// A scratch directory for the file tests, removed with all it holds.
#pragma once

#include <karu/file/dir.h>

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

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

    std::string path;
};

}  // namespace karu_test
