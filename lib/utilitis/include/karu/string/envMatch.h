// The commands with which the substitution passes expand references to
// environment variables: "$NAME" behind a mark, "${NAME}" between two
// delimiters. Each gives the variable's value where it is set and not
// empty, and leaves the reference as it stands otherwise; each notes
// whether it replaced anything, so that its caller can tell whether a value
// may itself hold references.
//
// One template serves text of both widths and bytes. Names and values go to
// and from the environment through its manager (envMgr.h), wide ones in the
// system's encoding.
#pragma once

#include <karu/string/stringEx.h>

namespace Karu {

// The name behind a mark: the longest run of 0-9, A-Z, a-z and "_".
template <class S>
class CEnvStrAbbrMatchCmd : public IStrMatchCmd<S> {
public:
    int Match(const S& view, S& replacement) override;
    uint64_t MatchedLength() override { return _length; }
    bool IsMatched() const noexcept { return _matched; }

private:
    uint64_t _length = 0;
    bool _matched = false;
};

// The whole text between the delimiters is the name.
template <class S>
class CEnvStrRegularMatchCmd : public IStrMatchCmd<S> {
public:
    int Match(const S& view, S& replacement) override;
    bool IsMatched() const noexcept { return _matched; }

private:
    bool _matched = false;
};

}  // namespace Karu
