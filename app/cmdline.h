// The command line as records, queried by switch name.
//
// The parser knows nothing of what a switch means: it cuts each argument
// once into a name and a value, and the driver asks for each name at the
// moment it needs it, so meaning and precedence live in the driver and an
// unknown switch is simply never asked for. A switch begins with one of the
// prefix characters; its name ends at the first suffix character, and
// everything behind that (further suffix characters included) is its value.
// Names keep the case they were typed in; case-blindness lies only in the
// comparison, which folds each unit under the current locale.
#pragma once

#include <cstdint>
#include <vector>

#include <karu/string/stringEx.h>

namespace Karu {

template <class T>
struct basic_cmd_arg {
    basic_string_ex<T> raw;    // the argument exactly as given
    basic_string_ex<T> name;   // without prefix and suffix; empty for no switch
    basic_string_ex<T> value;  // the text behind the suffix
};

template <class T>
class TCmdLine {
public:
    using string_type = basic_string_ex<T>;
    using record_type = basic_cmd_arg<T>;

    TCmdLine(const string_type& prefixes, const string_type& suffixes, uint32_t firstIndex = 1)
        : _prefixes(prefixes), _suffixes(suffixes), _firstIndex(firstIndex)
    {
    }

    // Takes argv apart; returns how many records are switches.
    uint32_t Parse(int argc, const T* const* argv);

    // Index of the occurrence-th record with this name (case-blind, or
    // exact), counting from the first index; -1 if none or name is empty.
    int32_t FindSwitch(const string_type& name, uint32_t occurrence = 0) const;
    int32_t FindSwitchExact(const string_type& name, uint32_t occurrence = 0) const;
    bool HasSwitch(const string_type& name) const { return FindSwitch(name) >= 0; }

    // The value of that switch; empty if it is absent.
    string_type GetValue(const string_type& name, uint32_t occurrence = 0) const;
    string_type GetValueExact(const string_type& name, uint32_t occurrence = 0) const;

    // Raw text of the i-th record that has no name; empty out of range.
    string_type GetFileArg(uint32_t i) const;
    // Records whose name is exactly this one.
    uint32_t CountSwitch(const string_type& name) const;
    // Appends the records from the first index on; returns how many.
    uint32_t CopyArgs(std::vector<record_type>& out) const;

    uint32_t RecordCount() const noexcept { return static_cast<uint32_t>(_records.size()); }
    uint32_t SwitchCount() const noexcept { return _switchCount; }
    uint32_t FirstIndex() const noexcept { return _firstIndex; }
    // How many arguments stand as file patterns.
    int64_t PatternCount() const noexcept
    {
        return int64_t(_records.size()) - int64_t(_switchCount) - int64_t(_firstIndex);
    }
    const std::vector<record_type>& Records() const noexcept { return _records; }

private:
    int32_t __Find(const string_type& name, uint32_t occurrence, bool exact) const;
    uint32_t __Parse();

    std::vector<record_type> _records;
    string_type _prefixes;
    string_type _suffixes;
    uint32_t _switchCount = 0;
    uint32_t _firstIndex;
};

using CMD_ARG = basic_cmd_arg<char>;
using CCmdLine = TCmdLine<char>;
using CCmdLineW = TCmdLine<wchar_t>;

}  // namespace Karu
