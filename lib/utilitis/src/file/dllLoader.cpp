// Loading shared libraries and finding their symbols. A name built from
// parts gets one retry under the conventional "lib" prefix; a name given
// whole is used as it stands.
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
    __Load(name, false);
}

CDllLoader::CDllLoader(const wstringEx& name)
{
    __Load(SysWCtoMB(name), false);
}

CDllLoader::CDllLoader(const stringEx& name, const stringEx& version, const stringEx& extension)
{
    stringEx fileName = name;
    if (!extension.empty())
        fileName = fileName + "." + extension;
    if (!version.empty())
        fileName = fileName + "." + version;
    // The program itself: a bare extension or version names no file.
    __Load(name.empty() ? stringEx() : fileName, true);
}

CDllLoader::CDllLoader(const wstringEx& name, const wstringEx& version, const wstringEx& extension)
    : CDllLoader(SysWCtoMB(name), SysWCtoMB(version), SysWCtoMB(extension))
{
}

void CDllLoader::__Load(const stringEx& fileName, bool retryWithLib)
{
    dlerror();
    _path = fileName;
    _handle = dlopen(fileName.empty() ? nullptr : std::string(fileName.data(), fileName.size()).c_str(), RTLD_LAZY);
    // Libraries are installed as lib<name>; callers may give the bare name.
    // A path is taken as it is: prefixing would point into another directory.
    if (!_handle && retryWithLib && !fileName.empty() && !HasPrefix(fileName, "/") && !HasPrefix(fileName, "lib")) {
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
