// Loading shared libraries by a name built from parts, with one retry under
// the conventional "lib" prefix, and finding their symbols.
#include <karu/file/dllLoader.h>

#include <dlfcn.h>

#include <string>

#include <karu/TextConv/TextConv.h>

namespace Karu {

namespace {

stringEx DlErrorText()
{
    const char* text = dlerror();
    return stringEx(text ? text : "unknwon system error");
}

bool HasPrefix(const stringEx& s, const char* prefix)
{
    return s.StartsWith(stringEx(prefix));
}

}  // namespace

CDllLoader::CDllLoader(const stringEx& name)
{
    __Load(name);
}

CDllLoader::CDllLoader(const wstringEx& name)
{
    __Load(SysWCtoMB(name));
}

CDllLoader::CDllLoader(const stringEx& name, const stringEx& version, const stringEx& extension)
{
    stringEx fileName = name;
    if (!extension.empty())
        fileName = fileName + "." + extension;
    if (!version.empty())
        fileName = fileName + "." + version;
    // The program itself: a bare extension or version names no file.
    __Load(name.empty() ? stringEx() : fileName);
}

CDllLoader::CDllLoader(const wstringEx& name, const wstringEx& version, const wstringEx& extension)
    : CDllLoader(SysWCtoMB(name), SysWCtoMB(version), SysWCtoMB(extension))
{
}

void CDllLoader::__Load(const stringEx& fileName)
{
    dlerror();
    _path = fileName;
    _handle = dlopen(fileName.empty() ? nullptr : std::string(fileName.data(), fileName.size()).c_str(), RTLD_LAZY);
    // Libraries are installed as lib<name>; callers may give the bare name.
    // A path is taken as it is: prefixing would point into another directory.
    if (!_handle && !fileName.empty() && !HasPrefix(fileName, "/") && !HasPrefix(fileName, "lib")) {
        const stringEx retry = "lib" + fileName;
        if ((_handle = dlopen(std::string(retry.data(), retry.size()).c_str(), RTLD_LAZY)))
            _path = retry;
    }
    if (!_handle)
        Throw<dlllExp>(ExpMessage("CDllLoader::CDllLoader - error loading dynamic library\n")
                           .Detail("dll path", fileName)
                           .Detail("sys error desc", DlErrorText()),
                       kDllLoadFailed);
}

CDllLoader::~CDllLoader() noexcept(false)
{
    dlerror();
    if (dlclose(_handle) != 0 && MayThrowFromDestructor())
        Throw<dlllExp>(ExpMessage("CDllLoader::~CDllLoader - error unloading dynamic library\n")
                           .Detail("dll path", _path)
                           .Detail("sys error desc", DlErrorText()),
                       kDllUnloadFailed);
}

void* CDllLoader::GetProc(const stringEx& symbol)
{
    dlerror();
    void* address = dlsym(_handle, std::string(symbol.data(), symbol.size()).c_str());
    if (!address)
        Throw<dlllExp>(ExpMessage("CDllLoader::GetProc - error get the address of specific proc\n")
                           .Detail("proc name", symbol)
                           .Detail("sys error desc", DlErrorText()),
                       kDllSymbolMissing);
    return address;
}

void* CDllLoader::GetProc(const wstringEx& symbol)
{
    return GetProc(SysWCtoMB(symbol));
}

}  // namespace Karu
