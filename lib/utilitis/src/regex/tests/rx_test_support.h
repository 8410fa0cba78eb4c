// Helpers shared by the engine's tests: run one pattern on one subject in
// either build and render the outcome as text, so tables can say what they
// expect in one string.
#pragma once

#include "karu/regex/rx.h"

#include <string>
#include <vector>

namespace rxtest {

template <class Ch>
std::basic_string<Ch> widen(const std::string& s)
{
    std::basic_string<Ch> out;
    for (unsigned char c : s) out.push_back(static_cast<Ch>(c));
    return out;
}

struct Outcome {
    int compile = 0;
    int exec = 0;
    long info = 0;
    std::string matches;  // "s,e s,e ..." for group 0 and each group
};

// Compile and run; matches are rendered for groupCount + 1 entries.
template <class Ch>
Outcome run(int flags, const std::basic_string<Ch>& pattern, const std::basic_string<Ch>& subject, int execFlags = 0)
{
    Outcome out;
    Karu::RxObject object{};
    out.compile = Karu::rxcomp(&object, pattern.data(), pattern.size(), flags);
    if (out.compile != Karu::RX_OK) return out;
    out.info = object.info;
    std::vector<Karu::RxMatch> m(object.groupCount + 1, Karu::RxMatch{-7, -7});
    out.exec = Karu::rxexec(&object, subject.data(), subject.size(), nullptr, m.size(), m.data(), execFlags);
    if (out.exec == Karu::RX_OK) {
        for (size_t i = 0; i < m.size(); ++i) {
            if (i) out.matches += ' ';
            out.matches += std::to_string(m[i].start) + "," + std::to_string(m[i].end);
        }
    }
    Karu::rxfree(&object);
    return out;
}

}  // namespace rxtest
