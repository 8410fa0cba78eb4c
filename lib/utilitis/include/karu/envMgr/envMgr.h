// Environment variables, the expansion of references to them, and two
// facts about the system: its name and the time since boot.
//
// References take two forms: "${NAME}", where the name is anything up to the
// closing brace, and "$NAME", where it is the longest run of letters, digits
// and underscores. A variable that is not set expands to nothing. "$$"
// stands for one "$".
//
// Every access to the environment goes through one lock, since getenv and
// putenv are not safe against each other; the strings handed to putenv are
// kept by the manager for as long as the process needs them.
#pragma once

#include <cstdint>

#include <karu/string/stringEx.h>

namespace Karu {

// Commands of the substitution passes: `delimited` is handed the name
// between "${" and "}", otherwise the text behind a "$".
template <class T>
class CEnvStrMatchCmd : public IStrMatchCmd<basic_string_ex<T>> {
public:
    explicit CEnvStrMatchCmd(bool delimited) : _delimited(delimited) {}
    int Match(const basic_string_ex<T>& view, basic_string_ex<T>& replacement) override;
    uint64_t MatchedLength() override { return _matched; }

private:
    bool _delimited;
    uint64_t _matched = 0;
};

// The empty string for a variable that is not set.
stringEx GetEnv(const stringEx& name);
wstringEx GetEnv(const wstringEx& name);
void SetEnv(const stringEx& name, const stringEx& value);
void SetEnv(const wstringEx& name, const wstringEx& value);

stringEx ExpandEnvStrings(const stringEx& text);
wstringEx ExpandEnvStrings(const wstringEx& text);

// The shell's status of `command`, as system returns it.
int System(const stringEx& command);

// The name of the operating system the library runs on.
stringEx GetOsName();
// Seconds since boot; 0 when the system does not tell.
double GetUptime();

}  // namespace Karu
