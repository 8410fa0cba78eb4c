// The environment manager; see envMgr.h.
//
// The manager is made on first use and keeps every "name=value" string it
// gave to putenv, since the environment points into them. It never hands
// them back: an exit handler registered before the first SetEnv runs after
// any handler the manager could register, and must still find the variable.
//
// System starts the shell with posix_spawn, which returns once the child has
// taken its copy of the environment (the system's implementation suspends
// the caller until the exec); only that moment is under the manager's lock.
#include <karu/envMgr/envMgr.h>

#include <signal.h>
#include <spawn.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include <karu/TextConv/TextConv.h>
#include <karu/sync/fastlock.h>

namespace Karu {
namespace {

class EnvManager {
public:
    static EnvManager& Instance()
    {
        // Never destroyed: its strings are the environment's until the end.
        static EnvManager* const manager = new EnvManager();
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
    FAST_PCLOCK _lock;
    std::map<std::string, char*> _kept;
};

bool IsNameStart(wchar_t c)
{
    return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z') || c == L'_';
}

bool IsNameUnit(wchar_t c)
{
    return IsNameStart(c) || (c >= L'0' && c <= L'9');
}

stringEx Narrow(const stringEx& text)
{
    return text;
}
stringEx Narrow(const wstringEx& text)
{
    return SysWCtoMB(text);
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
    return SysMBtoWC(value);
}

template <class T>
basic_string_ex<T> Expand(const basic_string_ex<T>& text)
{
    basic_string_ex<T> out(text.data(), text.size());
    CEnvStrMatchCmd<T> reference;
    // One pass: an inserted value is stepped over, and "$$" is kept whole.
    return ExpandMatches(out, T('$'), reference, false, true);
}

}  // namespace

template <class T>
int CEnvStrMatchCmd<T>::Match(const basic_string_ex<T>& view, basic_string_ex<T>& replacement)
{
    uint64_t begin = 0, length = 0;
    if (!view.empty() && view[0] == T('{')) {
        const uint64_t close = view.Find(T('}'), 1);
        if (close == basic_buffer<T>::npos || close == 1)
            return 0;  // no closing brace, or no name: no reference
        begin = 1;
        length = close - 1;
        _matched = close + 1;
    } else {
        if (view.empty() || !IsNameStart(wchar_t(view[0])))
            return 0;  // "$5", "$-", "$ ": no reference
        while (length < view.size() && IsNameUnit(wchar_t(view[length])))
            ++length;
        _matched = length;
    }
    const basic_string_ex<T> name(view.data() + begin, length);
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
    return SysMBtoWC(EnvManager::Instance().Get(SysWCtoMB(name)));
}

void SetEnv(const stringEx& name, const stringEx& value)
{
    EnvManager::Instance().Set(name, value);
}

void SetEnv(const wstringEx& name, const wstringEx& value)
{
    EnvManager::Instance().Set(SysWCtoMB(name), SysWCtoMB(value));
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
    char* argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), const_cast<char*>(line.c_str()), nullptr};
    // As under system(), the shell starts with interrupt and quit at their defaults.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGINT);
    sigaddset(&defaults, SIGQUIT);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF);
    pid_t pid = 0;
    int error;
    {
        CFastLockHolder hold(EnvManager::Instance().Lock());
        error = posix_spawn(&pid, "/bin/sh", nullptr, &attr, argv, environ);
    }
    posix_spawnattr_destroy(&attr);
    if (error != 0)
        return -1;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0)
        if (errno != EINTR)
            return -1;
    return status;
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
