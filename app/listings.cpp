// The two listings: every known encoding with its code page and
// description, and the groups of conversions that lose nothing.
//
// Columns are padded with blanks; a name too long for its column gets no
// padding (behind a long encoding name the rest of the row moves to a new
// line instead, so that the code pages still line up).
#include <cstdio>

#include <karu/TextConv/TextConv.h>

#include "usage.h"

namespace Karu {

namespace {

constexpr size_t kNameColumn = 20;      // encoding names
constexpr size_t kCodePageColumn = 11;  // "CP" and the number
constexpr size_t kFromColumn = 40;      // the left side of a group
const char kSeparator[] = "===============================================================================\n";

void Put(const stringEx& text)
{
    std::fwrite(text.data(), 1, text.size(), stdout);
}

void Pad(size_t used, size_t width)
{
    for (; used < width; ++used)
        std::fputc(' ', stdout);
}

// One row of a group: the left name padded to its column, then the right.
void GroupRow(const stringEx& left, const stringEx& right)
{
    Put(left);
    Pad(left.size(), kFromColumn);
    Put(right);
    std::fputc('\n', stdout);
}

}  // namespace

void ListEncodings()
{
    std::fputs("\nName                Codepage   Description\n", stdout);
    std::fputs(kSeparator, stdout);
    EnumCookie cookie;
    stringEx name;
    EncInfo info;
    while (TTextConv::EnumEncoding(cookie, name, info)) {
        Put(name);
        if (name.size() < kNameColumn) {
            Pad(name.size(), kNameColumn);
        } else {
            std::fputc('\n', stdout);
            Pad(0, kNameColumn);
        }
        char codePage[32];
        const int length = std::snprintf(codePage, sizeof codePage, "CP%u", info.codepage);
        std::fputs(codePage, stdout);
        Pad(static_cast<size_t>(length), kCodePageColumn);
        Put(info.description);
        std::fputc('\n', stdout);
    }
    std::fflush(stdout);
}

void ListCompatible()
{
    const stringEx any("<ANY>");
    EnumCookie cookie;
    CompatGroup group;
    while (TTextConv::EnumCompatible(cookie, group)) {
        std::fputs("\n-- ", stdout);
        Put(group.name);
        std::fputs(" --\nFrom                                    To\n", stdout);
        std::fputs(kSeparator, stdout);
        if (group.mutual) {
            for (const stringEx& name : group.from)
                GroupRow(name, name);
        } else if (group.from.empty()) {
            for (const stringEx& name : group.to)
                GroupRow(any, name);
        } else if (group.to.empty()) {
            for (const stringEx& name : group.from)
                GroupRow(name, any);
        } else {
            auto from = group.from.begin();
            auto to = group.to.begin();
            while (from != group.from.end() || to != group.to.end()) {
                const stringEx left = from != group.from.end() ? *from++ : stringEx();
                const stringEx right = to != group.to.end() ? *to++ : stringEx();
                GroupRow(left, right);
            }
        }
    }
    std::fflush(stdout);
}

}  // namespace Karu
