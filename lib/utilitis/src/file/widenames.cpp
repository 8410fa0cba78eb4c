// The wide-name twins of the file and directory operations.
//
// Names live in the file system as bytes of the system's encoding, so every
// wide twin is the narrow operation between two conversions through the
// system shortcuts. One conversion point keeps the two forms from drifting:
// the narrow operation stays the only place that touches the system.
#include <karu/TextConv/TextConv.h>
#include <karu/file/dir.h>
#include <karu/file/sysfile.h>

namespace Karu {
namespace {

// Runs a search that fills a narrow vector and appends its names, widened,
// to the caller's; the count is the size of the caller's vector, as for the
// narrow forms. A search that fails keeps what it had found, as the narrow
// forms do: the names are handed over before the failure goes on.
template <class Search>
uint32_t WidenResults(WStringVector& result, Search&& search)
{
    StringVector narrow;
    const auto widen = [&] {
        result.reserve(result.size() + narrow.size());
        for (const stringEx& name : narrow)
            result.push_back(SysMBtoWC(name));
    };
    try {
        search(narrow);
    } catch (...) {
        widen();
        throw;
    }
    widen();
    return static_cast<uint32_t>(result.size());
}

// The caller's wide handler, told of each problem with the path widened.
SearchProblemHandler NarrowHandler(const WSearchProblemHandler& onProblem)
{
    if (!onProblem)
        return {};
    return [&onProblem](const stringEx& path, const karuExp& problem) { return onProblem(SysMBtoWC(path), problem); };
}

}  // namespace

void CSysFile::Open(const wstringEx& path, uint32_t openFlags, uint32_t extraFlags, uint32_t shareMode,
                    uint32_t permissions, uint32_t options)
{
    Open(SysWCtoMB(path), openFlags, extraFlags, shareMode, permissions, options);
}

void CDir::Open(const wstringEx& path, bool create, bool noCheck)
{
    Open(SysWCtoMB(path), create, noCheck);
}

void CDir::ConvToFullPath(wstringEx& path)
{
    stringEx narrow = SysWCtoMB(path);
    ConvToFullPath(narrow);
    path = SysMBtoWC(narrow);
}

wstringEx CDir::GetPathDir(const wstringEx& path)
{
    return SysMBtoWC(GetPathDir(SysWCtoMB(path)));
}

wstringEx CDir::GetPathFilename(const wstringEx& path)
{
    return SysMBtoWC(GetPathFilename(SysWCtoMB(path)));
}

uint32_t CDir::GetAllFiles(WStringVector& result, const wstringEx& pattern, bool recursive, bool includeHidden,
                           uint32_t reserved, const WSearchProblemHandler& onProblem) const
{
    const stringEx narrowPattern = SysWCtoMB(pattern);
    return WidenResults(result, [&](StringVector& narrow) {
        GetAllFiles(narrow, narrowPattern, recursive, includeHidden, reserved, NarrowHandler(onProblem));
    });
}

uint32_t CDir::GetAllSubDirs(WStringVector& result, const wstringEx& pattern, bool recursive, bool includeHidden,
                             bool includeDots, uint32_t reserved, const WSearchProblemHandler& onProblem) const
{
    const stringEx narrowPattern = SysWCtoMB(pattern);
    return WidenResults(result, [&](StringVector& narrow) {
        GetAllSubDirs(narrow, narrowPattern, recursive, includeHidden, includeDots, reserved,
                      NarrowHandler(onProblem));
    });
}

uint32_t CDir::GetAllFilesRegEx(WStringVector& result, const wstringEx& expression, bool recursive,
                                bool includeHidden, const WSearchProblemHandler& onProblem) const
{
    const stringEx narrowExpression = SysWCtoMB(expression);
    return WidenResults(result, [&](StringVector& narrow) {
        GetAllFilesRegEx(narrow, narrowExpression, recursive, includeHidden, NarrowHandler(onProblem));
    });
}

uint32_t CDir::_GetAllSubDirsRegEx(WStringVector& result, const wstringEx& expression, bool recursive,
                                   bool includeHidden, bool includeDots, const WSearchProblemHandler& onProblem) const
{
    const stringEx narrowExpression = SysWCtoMB(expression);
    return WidenResults(result, [&](StringVector& narrow) {
        _GetAllSubDirsRegEx(narrow, narrowExpression, recursive, includeHidden, includeDots,
                            NarrowHandler(onProblem));
    });
}

bool CDir::NextFile(CDirHandle& handle, wstringEx& name, bool includeHidden) const
{
    stringEx narrow;
    const bool more = NextFile(handle, narrow, includeHidden);
    name = more ? SysMBtoWC(narrow) : wstringEx();
    return more;
}

bool CDir::NextSubDir(CDirHandle& handle, wstringEx& name, bool includeHidden, bool includeDots) const
{
    stringEx narrow;
    const bool more = NextSubDir(handle, narrow, includeHidden, includeDots);
    name = more ? SysMBtoWC(narrow) : wstringEx();
    return more;
}

}  // namespace Karu
