// CDllLoader: one loaded shared library and the lookup of its symbols.
//
// The name is built as name[.extension][.version], so ("icuuc", "72", "so")
// is icuuc.so.72; a bare name that the loader cannot find is tried once more
// with "lib" in front. An empty name opens the program itself, whose symbols
// include those of every library it was linked with. Failures raise dlllExp
// whose code tells a library that cannot be loaded (kDllLoadFailed) from a
// symbol that is missing (kDllSymbolMissing): the converter back ends react
// differently to the two.
#pragma once

#include <cstdint>

#include <karu/string/karuExp.h>

namespace Karu {

constexpr int32_t kDllLoadFailed = 1;
constexpr int32_t kDllSymbolMissing = 3;
constexpr int32_t kDllUnloadFailed = 2;

class CDllLoader {
public:
    explicit CDllLoader(const stringEx& name);
    explicit CDllLoader(const wstringEx& name);
    CDllLoader(const stringEx& name, const stringEx& version, const stringEx& extension);
    CDllLoader(const wstringEx& name, const wstringEx& version, const wstringEx& extension);
    ~CDllLoader() noexcept(false);
    CDllLoader(const CDllLoader&) = delete;
    CDllLoader& operator=(const CDllLoader&) = delete;

    // The address of a symbol; dlllExp with kDllSymbolMissing if it has none.
    void* GetProc(const stringEx& symbol);
    void* GetProc(const wstringEx& symbol);

    // The file name that was finally loaded (empty for the program itself).
    const stringEx& Path() const noexcept { return _path; }

private:
    void __Load(const stringEx& fileName, bool retryWithLib);

    void* _handle = nullptr;
    stringEx _path;
};

}  // namespace Karu
