// Environment variables, the expansion of references to them, and two
// facts about the system: its name and the time since boot.
//
// References take two forms: "${NAME}", where the name is anything up to the
// closing brace, and "$NAME", where the name begins with a letter or an
// underscore and runs over letters, digits and underscores. A variable that
// is not set expands to nothing; a value goes in as it is and is not read
// for references again. Everything else stays as written: a "$" before no
// name, a "${" without its brace, and "$$", which also keeps a name behind
// it from being expanded ("$$HOME" stays "$$HOME").
//
// The wide forms convert names and values with the system's encoding.
//
// Every access to the environment goes through one lock, since getenv and
// putenv are not safe against each other; the strings handed to putenv are
// kept by the manager until the process ends, so that a variable set here
// stays set for the exit handlers too.
#pragma once

#include <cstdint>

#include <karu/string/stringEx.h>

namespace Karu {

// The command of the substitution pass over "$" marks: handed the text
// behind a mark, it recognises "{NAME}" and "NAME" and gives the value.
template <class T>
class CEnvStrMatchCmd : public IStrMatchCmd<basic_string_ex<T>> {
public:
    int Match(const basic_string_ex<T>& view, basic_string_ex<T>& replacement) override;
    uint64_t MatchedLength() override { return _matched; }

private:
    uint64_t _matched = 0;
};

// The empty string for a variable that is not set.
stringEx GetEnv(const stringEx& name);
wstringEx GetEnv(const wstringEx& name);
void SetEnv(const stringEx& name, const stringEx& value);
void SetEnv(const wstringEx& name, const wstringEx& value);

stringEx ExpandEnvStrings(const stringEx& text);
wstringEx ExpandEnvStrings(const wstringEx& text);

// The shell's status of `command`, as system returns it; -1 when no shell
// could be started. The environment lock is held only while the shell
// starts, not for the length of the command.
int System(const stringEx& command);

// The name of the operating system the library runs on.
stringEx GetOsName();
// Seconds since boot; 0 when the system does not tell.
double GetUptime();

}  // namespace Karu
