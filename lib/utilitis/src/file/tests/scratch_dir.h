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

    // Writes `content` as it stands, making the directories on the way.
    void Put(const std::string& name, const std::string& content) const
    {
        Karu::CDir::MakeDir(Karu::CDir::GetPathDir(Karu::stringEx((*this / name).c_str())), true);
        std::ofstream(*this / name, std::ios::binary | std::ios::trunc) << content;
    }
    std::string Get(const std::string& name) const
    {
        std::ifstream in(*this / name, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }

    std::string path;
};

}  // namespace karu_test
