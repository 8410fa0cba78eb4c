// The two listings: every known encoding with its code page and
// description, and the groups of conversions that lose nothing.
//
// Columns are padded with blanks; a name too long for its column gets no
// padding (behind a long encoding name the rest of the row moves to a new
// line instead, so that the code pages still line up).
#include <cstdio>

#include <karu/TextConv/TextConv.h>

#include "textio.h"
#include "usage.h"

namespace Karu {

namespace {

constexpr size_t kNameColumn = 20;      // encoding names
constexpr size_t kCodePageColumn = 11;  // "CP" and the number
constexpr size_t kFromColumn = 40;      // the left side of a group
const char kSeparator[] = "===============================================================================\n";

void Pad(stringEx& out, size_t used, size_t width)
{
    if (used < width)
        out.append(width - used, ' ');
}

// One row of a group: the left name padded to its column, then the right.
void GroupRow(stringEx& out, const stringEx& left, const stringEx& right)
{
    out += left;
    Pad(out, left.size(), kFromColumn);
    out += right;
    out += '\n';
}

}  // namespace

void ListEncodings()
{
    stringEx out("\nName                Codepage   Description\n");
    out += kSeparator;
    EnumCookie cookie;
    stringEx name;
    EncInfo info;
    while (TTextConv::EnumEncoding(cookie, name, info)) {
        out += name;
        if (name.size() < kNameColumn) {
            Pad(out, name.size(), kNameColumn);
        } else {
            out += '\n';
            Pad(out, 0, kNameColumn);
        }
        char codePage[32];
        const int length = std::snprintf(codePage, sizeof codePage, "CP%u", info.codepage);
        out += codePage;
        Pad(out, static_cast<size_t>(length), kCodePageColumn);
        out += info.description;
        out += '\n';
    }
    WriteStdout(out);
}

void ListCompatible()
{
    const stringEx any("<ANY>");
    EnumCookie cookie;
    CompatGroup group;
    stringEx out;
    while (TTextConv::EnumCompatible(cookie, group)) {
        out += "\n-- ";
        out += group.name;
        out += " --\nFrom                                    To\n";
        out += kSeparator;
        if (group.mutual) {
            for (const stringEx& name : group.from)
                GroupRow(out, name, name);
        } else if (group.from.empty()) {
            for (const stringEx& name : group.to)
                GroupRow(out, any, name);
        } else if (group.to.empty()) {
            for (const stringEx& name : group.from)
                GroupRow(out, name, any);
        } else {
            auto from = group.from.begin();
            auto to = group.to.begin();
            while (from != group.from.end() || to != group.to.end()) {
                const stringEx left = from != group.from.end() ? *from++ : stringEx();
                const stringEx right = to != group.to.end() ? *to++ : stringEx();
                GroupRow(out, left, right);
            }
        }
    }
    WriteStdout(out);
}

}  // namespace Karu
