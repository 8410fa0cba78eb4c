// Which conversions lose nothing: a fixed table of groups, tried in order.
//
// The check compares names only. It is deliberately not clever: equal names
// are not compatible by themselves (an encoding in no group converts only to
// a Unicode target), and an unknown name takes part like any other, which is
// what lets any source go to a Unicode target and an ASCII source go anywhere.
#include <karu/TextConv/TextConv.h>

#include <vector>

#include "textconv_impl.h"

namespace Karu {

namespace {

EncNameSet NameSet(const char* const* names)
{
    EncNameSet set;
    for (; *names; ++names)
        set.insert(stringEx(*names));
    return set;
}

const std::vector<CompatGroup>& Groups()
{
    static const std::vector<CompatGroup> groups = [] {
        uint64_t count = 0;
        const IMPL::CompatRow* rows = IMPL::CompatRows(count);
        std::vector<CompatGroup> built;
        built.reserve(count);
        for (uint64_t i = 0; i < count; ++i) {
            CompatGroup group;
            group.from = NameSet(rows[i].from);
            group.to = NameSet(rows[i].to);
            group.mutual = rows[i].mutual;
            group.name = stringEx(rows[i].name);
            built.push_back(std::move(group));
        }
        return built;
    }();
    return groups;
}

stringEx Resolve(const stringEx& name)
{
    uint32_t number = 0;
    return IMPL::ParseCodePageName(name, number) ? TTextConv::CPToEnc(number) : name;
}

bool Accepts(const CompatGroup& group, const stringEx& from, const stringEx& to)
{
    if (group.mutual)
        return group.from.count(from) && group.from.count(to);
    if (!group.from.empty() && !group.from.count(from))
        return false;
    return group.to.empty() || group.to.count(to);
}

}  // namespace

bool TTextConv::IsCompatible(const stringEx& from, const stringEx& to, stringEx* groupName)
{
    const stringEx source = Resolve(from), target = Resolve(to);
    for (const CompatGroup& group : Groups()) {
        if (Accepts(group, source, target)) {
            if (groupName)
                *groupName = group.name;
            return true;
        }
    }
    return false;
}

bool TTextConv::IsCompatible(uint32_t from, uint32_t to, stringEx* groupName)
{
    return IsCompatible(CPToEnc(from), CPToEnc(to), groupName);
}

bool TTextConv::EnumCompatible(EnumCookie& cookie, CompatGroup& group)
{
    const std::vector<CompatGroup>& groups = Groups();
    if (!cookie)
        cookie = std::make_shared<uint64_t>(0);
    if (*cookie >= groups.size()) {
        cookie.reset();
        group = CompatGroup();
        return false;
    }
    group = groups[(*cookie)++];
    return true;
}

uint64_t TTextConv::CompatibleGroupCount()
{
    return Groups().size();
}

stringEx IncompatibleConversionMessage(const stringEx& from, const stringEx& to)
{
    return "\n## Incompatible text encoding convertion detected: encoding from \"" + from + "\" to \"" + to +
           "\" will lost infomation and should not be used. use: \"tolmek -listcmp\" for a list of the compatible "
           "convertion combinations. or use \"-force\" to enforce the convertion.\n";
}

}  // namespace Karu
