// The environment commands of the substitution passes; see envMatch.h.
#include <karu/string/envMatch.h>

#include <karu/envMgr/envMgr.h>

namespace Karu {
namespace {

bool IsNameUnit(uint32_t c) noexcept
{
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}

stringEx ValueOf(const stringEx& name)
{
    return GetEnv(name);
}

wstringEx ValueOf(const wstringEx& name)
{
    return GetEnv(name);
}

byteEx ValueOf(const byteEx& name)
{
    const stringEx value = GetEnv(stringEx(reinterpret_cast<const char*>(name.data()), name.size()));
    return byteEx(reinterpret_cast<const unsigned char*>(value.data()), value.size());
}

// The value of a variable named by `name`; false when it is unset or empty.
template <class S>
bool Look(const S& name, S& value)
{
    if (name.empty())
        return false;
    value = ValueOf(S(name.data(), name.size()));
    return !value.empty();
}

}  // namespace

template <class S>
int CEnvStrAbbrMatchCmd<S>::Match(const S& view, S& replacement)
{
    uint64_t length = 0;
    while (length < view.size() && IsNameUnit(static_cast<uint32_t>(view[length])))
        ++length;
    if (!Look(S(S::View(view.data(), length)), replacement))
        return 0;
    _length = length;
    _matched = true;
    return 1;
}

template <class S>
int CEnvStrRegularMatchCmd<S>::Match(const S& view, S& replacement)
{
    if (!Look(view, replacement))
        return 0;
    _matched = true;
    return 1;
}

template class CEnvStrAbbrMatchCmd<stringEx>;
template class CEnvStrAbbrMatchCmd<wstringEx>;
template class CEnvStrAbbrMatchCmd<byteEx>;
template class CEnvStrRegularMatchCmd<stringEx>;
template class CEnvStrRegularMatchCmd<wstringEx>;
template class CEnvStrRegularMatchCmd<byteEx>;

}  // namespace Karu
