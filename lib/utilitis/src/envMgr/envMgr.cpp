// The environment manager; see envMgr.h.
//
// The manager is made on first use and keeps every "name=value" string it
// gave to putenv: the environment points into them. Its exit handler takes
// those variables out of the environment before it frees the strings, so
// that a later getenv (from another exit handler) finds nothing rather than
// freed memory.
#include <karu/envMgr/envMgr.h>

#include <sys/utsname.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include <karu/misc/shmem.h>
#include <karu/sync/fastlock.h>

namespace Karu {
namespace {

class EnvManager {
public:
    static EnvManager& Instance()
    {
        static EnvManager* manager = [] {
            auto* made = new EnvManager();
            std::atexit([] {
                delete Instance().Release();
            });
            return made;
        }();
        return *manager;
    }

    stringEx Get(const stringEx& name)
    {
        const stringEx key(name.data(), name.size());
        CFastLockHolder hold(_lock);
        const char* value = std::getenv(key.c_str());
        return stringEx(value ? value : "");
    }

    void Set(const stringEx& name, const stringEx& value)
    {
        std::string key(name.data(), size_t(name.size()));
        char* entry = static_cast<char*>(std::malloc(size_t(name.size() + value.size() + 2)));
        if (!entry)
            throw std::bad_alloc();
        std::memcpy(entry, name.data(), size_t(name.size()));
        entry[name.size()] = '=';
        std::memcpy(entry + name.size() + 1, value.data(), size_t(value.size()));
        entry[name.size() + value.size() + 1] = '\0';
        CFastLockHolder hold(_lock);
        if (putenv(entry) != 0) {
            std::free(entry);
            throw std::bad_alloc();  // putenv fails only for want of memory
        }
        auto found = _kept.find(key);
        if (found != _kept.end()) {
            std::free(found->second);  // the environment points at the new entry now
            found->second = entry;
        } else {
            _kept.emplace(std::move(key), entry);
        }
    }

    FAST_PCLOCK& Lock() noexcept { return _lock; }

private:
    EnvManager* Release()
    {
        CFastLockHolder hold(_lock);
        for (auto& [name, entry] : _kept) {
            unsetenv(name.c_str());
            std::free(entry);
        }
        _kept.clear();
        return nullptr;  // the manager itself stays: a late call still finds its lock
    }

    FAST_PCLOCK _lock;
    std::map<std::string, char*> _kept;
};

bool IsNameUnit(wchar_t c)
{
    return (c >= L'0' && c <= L'9') || (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z') || c == L'_';
}

stringEx Narrow(const stringEx& text)
{
    return text;
}
stringEx Narrow(const wstringEx& text)
{
    return IMPL::ToSysBytes(text);
}

template <class T>
basic_string_ex<T> ValueAs(const stringEx& value);
template <>
stringEx ValueAs<char>(const stringEx& value)
{
    return value;
}
template <>
wstringEx ValueAs<wchar_t>(const stringEx& value)
{
    return IMPL::FromSysBytes(value);
}

template <class T>
basic_string_ex<T> Expand(const basic_string_ex<T>& text)
{
    basic_string_ex<T> out(text.data(), text.size());
    CEnvStrMatchCmd<T> delimited(true), abbreviated(false);
    const T open[] = {T('$'), T('{'), T(0)};
    const T close[] = {T('}'), T(0)};
    // "$$" survives the first pass and becomes "$" in the second.
    ExpandDelimited(out, basic_string_ex<T>(open), basic_string_ex<T>(close), delimited, true);
    return ExpandMatches(out, T('$'), abbreviated, false, false);
}

}  // namespace

template <class T>
int CEnvStrMatchCmd<T>::Match(const basic_string_ex<T>& view, basic_string_ex<T>& replacement)
{
    uint64_t length = view.size();
    if (!_delimited) {
        length = 0;
        while (length < view.size() && IsNameUnit(wchar_t(view[length])))
            ++length;
        if (length == 0)
            return 0;  // "$" before anything else is no reference
    }
    _matched = length;
    const basic_string_ex<T> name(view.data(), length);
    replacement = ValueAs<T>(EnvManager::Instance().Get(Narrow(name)));
    return 1;
}

template class CEnvStrMatchCmd<char>;
template class CEnvStrMatchCmd<wchar_t>;

stringEx GetEnv(const stringEx& name)
{
    return EnvManager::Instance().Get(name);
}

wstringEx GetEnv(const wstringEx& name)
{
    return IMPL::FromSysBytes(EnvManager::Instance().Get(IMPL::ToSysBytes(name)));
}

void SetEnv(const stringEx& name, const stringEx& value)
{
    EnvManager::Instance().Set(name, value);
}

void SetEnv(const wstringEx& name, const wstringEx& value)
{
    EnvManager::Instance().Set(IMPL::ToSysBytes(name), IMPL::ToSysBytes(value));
}

stringEx ExpandEnvStrings(const stringEx& text)
{
    return Expand(text);
}

wstringEx ExpandEnvStrings(const wstringEx& text)
{
    return Expand(text);
}

int System(const stringEx& command)
{
    const stringEx line(command.data(), command.size());
    // The shell reads the environment as it starts; no putenv may run meanwhile.
    CFastLockHolder hold(EnvManager::Instance().Lock());
    return std::system(line.c_str());
}

stringEx GetOsName()
{
    // First key found in the kernel's name wins; the build's own system is
    // the answer when the kernel does not say.
    static const char* const kSystems[] = {
        "Linux", "FreeBSD", "NetBSD", "OpenBSD", "DragonFly", "Darwin",  "SunOS",     "Solaris", "HP-UX", "IRIX",
        "UnixWare", "Hurd", "BeOS", "CYGWIN", "Interix", "MINIX", "Lynx", "INTEGRITY", "eCos",  "KYLIN",
    };
    utsname name{};
    if (uname(&name) == 0)
        for (const char* system : kSystems)
            if (std::strstr(name.sysname, system))
                return stringEx(system);
#if defined(__linux__)
    return stringEx("Linux");
#else
    return stringEx(name.sysname[0] ? static_cast<const char*>(name.sysname) : "unknown");
#endif
}

double GetUptime()
{
    FILE* file = std::fopen("/proc/uptime", "r");
    if (!file)
        return 0;
    char text[513];
    const size_t got = std::fread(text, 1, 512, file);
    std::fclose(file);
    text[got] = '\0';
    return std::strtod(text, nullptr);
}

}  // namespace Karu
