// Command-line records: one parse, then look-ups by name. Written once for
// both widths.
#include "cmdline.h"

namespace Karu {

namespace {

// Position of the first unit of s that is one of set, or npos.
template <class T>
uint64_t FindAnyOf(const basic_string_ex<T>& s, const basic_string_ex<T>& set)
{
    for (uint64_t i = 0; i < s.size(); ++i)
        if (set.Find(s[i]) != basic_string_ex<T>::npos)
            return i;
    return basic_string_ex<T>::npos;
}

}  // namespace

template <class T>
uint32_t TCmdLine<T>::Parse(int argc, const T* const* argv)
{
    if (argc <= 0)
        return 0;
    _records.assign(static_cast<size_t>(argc), record_type());
    for (int i = 0; i < argc; ++i)
        _records[i].raw = string_type(argv[i]);
    return __Parse();
}

template <class T>
uint32_t TCmdLine<T>::__Parse()
{
    if (_records.empty() || _prefixes.empty())
        return 0;
    _switchCount = 0;
    for (size_t i = 0; i < _records.size(); ++i) {
        record_type& record = _records[i];
        record.name.clear();
        record.value.clear();
        if (i < _firstIndex || record.raw.empty())
            continue;
        if (FindAnyOf(record.raw, _prefixes) != 0)
            continue;
        const string_type body = record.raw.Mid(1);
        const uint64_t suffix = FindAnyOf(body, _suffixes);
        if (suffix == string_type::npos) {
            record.name = body;
        } else {
            record.name = body.Left(suffix);
            if (suffix + 1 < body.size())
                record.value = body.Mid(suffix + 1);
        }
        ++_switchCount;
    }
    return _switchCount;
}

template <class T>
int32_t TCmdLine<T>::__Find(const string_type& name, uint32_t occurrence, bool exact) const
{
    if (name.empty())
        return -1;
    for (size_t i = _firstIndex; i < _records.size(); ++i) {
        const string_type& candidate = _records[i].name;
        const bool same = exact ? candidate == name : EqualsNoCase<T>(candidate, name);
        if (same && occurrence-- == 0)
            return static_cast<int32_t>(i);
    }
    return -1;
}

template <class T>
int32_t TCmdLine<T>::FindSwitch(const string_type& name, uint32_t occurrence) const
{
    return __Find(name, occurrence, false);
}

template <class T>
int32_t TCmdLine<T>::FindSwitchExact(const string_type& name, uint32_t occurrence) const
{
    return __Find(name, occurrence, true);
}

template <class T>
basic_string_ex<T> TCmdLine<T>::GetValue(const string_type& name, uint32_t occurrence) const
{
    const int32_t at = FindSwitch(name, occurrence);
    return at < 0 ? string_type() : _records[at].value;
}

template <class T>
basic_string_ex<T> TCmdLine<T>::GetValueExact(const string_type& name, uint32_t occurrence) const
{
    const int32_t at = FindSwitchExact(name, occurrence);
    return at < 0 ? string_type() : _records[at].value;
}

template <class T>
basic_string_ex<T> TCmdLine<T>::GetFileArg(uint32_t i) const
{
    if (int64_t(i) >= PatternCount())
        return string_type();
    for (size_t r = _firstIndex; r < _records.size(); ++r)
        if (_records[r].name.empty() && i-- == 0)
            return _records[r].raw;
    return string_type();
}

template <class T>
uint32_t TCmdLine<T>::CountSwitch(const string_type& name) const
{
    if (name.empty())
        return 0;
    uint32_t count = 0;
    for (const record_type& record : _records)
        count += record.name == name;
    return count;
}

template <class T>
uint32_t TCmdLine<T>::CopyArgs(std::vector<record_type>& out) const
{
    uint32_t count = 0;
    for (size_t i = _firstIndex; i < _records.size(); ++i, ++count)
        out.push_back(_records[i]);
    return count;
}

template class TCmdLine<char>;
template class TCmdLine<wchar_t>;

}  // namespace Karu
