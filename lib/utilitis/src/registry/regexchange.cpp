// ini and csv exchange of a registry tree.
//
// Both formats carry each value's type as a tag, so a tree comes back as it
// went out. ini: a section line "[a\b]" per key, then "name:TAG=text" per
// value. csv: rows of three columns, ("KEY", path, "") selecting a key and
// (tag, name, text) for each value of it.
//
// Text is UTF-8, with two-character escapes ("~" and a letter) for every
// character the line formats give a meaning to; names escape more than
// values, since a name also stands inside a path and before ":" and "=".
// The quote mark is escaped too, so a csv field never holds one and every
// field reads back. A string set is its members, each escaped and followed
// by ";", which tells the empty set ("") from one empty member (";").
//
// Imports read into a scratch tree and merge it into the key only when the
// whole text has parsed, so a bad line leaves the key as it was.
#include "regbody.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include <karu/csv/csv.h>

namespace Karu {
namespace {

using IMPL::RegAccess;
using IMPL::RegKeyBody;

constexpr char kEscape = '~';

struct EscapePair {
    char plain;
    char letter;
};

const EscapePair kNameEscapes[] = {
    {'~', '~'}, {'\r', 'r'}, {'\n', 'n'}, {'[', '{'}, {']', '}'}, {':', 'c'}, {'=', 'e'},
    {';', 's'}, {'#', 'h'},  {'\\', 'b'}, {'"', 'q'}, {'\0', '0'},
};
const EscapePair kValueEscapes[] = {
    {'~', '~'}, {'\r', 'r'}, {'\n', 'n'}, {'[', '{'}, {']', '}'}, {';', 's'}, {'"', 'q'}, {'\0', '0'},
};

struct TypeTag {
    const char* tag;
    uint32_t type;
};

const TypeTag kTags[] = {
    {"NONE", T_NONE},   {"STRING", T_STRING}, {"STRING_EXP", T_EXP_STR}, {"BLOB", T_BLOB},           {"DWORD", T_DWORD},
    {"QWORD", T_QWORD}, {"FLOAT", T_FLOAT8},  {"BOOL", T_BOOL},          {"STRING_SET", T_STRING_SET},
};

[[noreturn]] void Unreadable(const char* what, uint64_t line, const stringEx& text)
{
    Throw<regExp>(ExpMessage(stringEx("RegImport - ") + stringEx(what) + "\n")
                      .Detail("line", static_cast<int64_t>(line))
                      .Detail("text", text),
                  18);
}

template <size_t N>
stringEx Escape(const stringEx& text, const EscapePair (&table)[N])
{
    stringEx out;
    out.ReserveGrow(text.size() + 1);
    for (char c : text) {
        const EscapePair* pair = nullptr;
        for (const EscapePair& p : table)
            if (p.plain == c)
                pair = &p;
        if (pair) {
            out += kEscape;
            out += pair->letter;
        } else {
            out += c;
        }
    }
    return out;
}

template <size_t N>
stringEx Unescape(const stringEx& text, const EscapePair (&table)[N], uint64_t line)
{
    stringEx out;
    out.ReserveGrow(text.size() + 1);
    for (uint64_t i = 0; i < text.size(); ++i) {
        if (text[i] != kEscape) {
            out += text[i];
            continue;
        }
        const EscapePair* pair = nullptr;
        if (i + 1 < text.size())
            for (const EscapePair& p : table)
                if (p.letter == text[i + 1])
                    pair = &p;
        if (!pair)
            Unreadable("unknown escape", line, text);
        out += pair->plain;
        ++i;
    }
    return out;
}

// The shortest %g form that reads back as the same double.
stringEx FloatText(double value)
{
    for (int digits = 6;; ++digits) {
        const stringEx text = stringEx::Format("%.*g", digits, value);
        if (digits >= 17 || std::isnan(value) || std::strtod(text.c_str(), nullptr) == value)
            return text;
    }
}

stringEx ValueText(const REG_VALUE& value)
{
    const byteEx& data = value.data;
    switch (value.type) {
    case T_STRING:
    case T_EXP_STR:
        return Escape(IMPL::RegToUtf8(stringEx(reinterpret_cast<const char*>(data.data()), data.size())),
                      kValueEscapes);
    case T_BLOB: {
        stringEx hex;
        for (unsigned char b : data)
            hex += stringEx::Format("%02x", b);
        return hex;
    }
    case T_DWORD:
        return stringEx::Format("%u", IMPL::RegNumber<uint32_t>(data));
    case T_QWORD:
        return stringEx::Format("%llu", static_cast<unsigned long long>(IMPL::RegNumber<uint64_t>(data)));
    case T_FLOAT8:
        return FloatText(IMPL::RegNumber<double>(data));
    case T_BOOL:
        return !data.empty() && data[0] ? "true" : "false";
    case T_STRING_SET: {
        stringEx text;
        for (const stringEx& member : IMPL::SplitStringSet(data)) {
            text += Escape(IMPL::RegToUtf8(member), kValueEscapes);
            text += ';';
        }
        return text;
    }
    default:
        return stringEx();
    }
}

const char* TagOf(uint32_t type)
{
    for (const TypeTag& t : kTags)
        if (t.type == type)
            return t.tag;
    Throw<regExp>(ExpMessage(stringEx::Format("RegExport - invalid type : %u", type)), 18);
}

bool ParseUnsigned(const stringEx& text, uint64_t limit, uint64_t& out)
{
    if (text.empty() || text.size() > 20)
        return false;
    out = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
        const uint64_t digit = static_cast<uint64_t>(c - '0');
        if (out > (limit - digit) / 10)
            return false;
        out = out * 10 + digit;
    }
    return true;
}

int HexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// A value from its tag and text.
REG_VALUE ParseValue(const stringEx& givenTag, const stringEx& text, uint64_t line)
{
    stringEx tag = givenTag;
    tag.MakeLower();
    REG_VALUE value;
    value.type = ~0u;
    for (const TypeTag& t : kTags)
        if (stringEx(t.tag).EqualsNoCase(tag))
            value.type = t.type;
    auto bytes = [&](const auto& number) { value.data = IMPL::RegBytes(number); };
    uint64_t number = 0;
    switch (value.type) {
    case T_NONE:
        if (!text.empty())
            Unreadable("a value of type none has no text", line, text);
        break;
    case T_STRING:
    case T_EXP_STR: {
        const stringEx plain = IMPL::RegFromUtf8(Unescape(text, kValueEscapes, line));
        value.data = byteEx(reinterpret_cast<const unsigned char*>(plain.data()), plain.size());
        break;
    }
    case T_BLOB:
        if (text.size() % 2)
            Unreadable("blob with an odd number of digits", line, text);
        for (uint64_t i = 0; i < text.size(); i += 2) {
            const int high = HexDigit(text[i]), low = HexDigit(text[i + 1]);
            if (high < 0 || low < 0)
                Unreadable("blob with a character that is no hexadecimal digit", line, text);
            value.data.push_back(static_cast<unsigned char>(high * 16 + low));
        }
        break;
    case T_DWORD:
        if (!ParseUnsigned(text, UINT32_MAX, number))
            Unreadable("dword that is no decimal number of 32 bits", line, text);
        bytes(static_cast<uint32_t>(number));
        break;
    case T_QWORD:
        if (!ParseUnsigned(text, UINT64_MAX, number))
            Unreadable("qword that is no decimal number of 64 bits", line, text);
        bytes(number);
        break;
    case T_FLOAT8: {
        char* end = nullptr;
        errno = 0;
        const double real = text.empty() ? 0.0 : std::strtod(text.c_str(), &end);
        if (text.empty() || end != text.c_str() + text.size())
            Unreadable("float that is no number", line, text);
        bytes(real);
        break;
    }
    case T_BOOL:
        if (text.EqualsNoCase("true") || text == "1")
            bytes(static_cast<unsigned char>(1));
        else if (text.EqualsNoCase("false") || text == "0")
            bytes(static_cast<unsigned char>(0));
        else
            Unreadable("bool that is neither true nor false", line, text);
        break;
    case T_STRING_SET: {
        if (!text.empty() && text[text.size() - 1] != ';')
            Unreadable("string set whose last member is not ended by ;", line, text);
        StringVector members;
        uint64_t start = 0;
        for (uint64_t i = 0; i < text.size(); ++i)
            if (text[i] == ';') {
                members.push_back(IMPL::RegFromUtf8(Unescape(text.Mid(start, i - start), kValueEscapes, line)));
                start = i + 1;
            }
        value.data = IMPL::JoinStringSet(members);
        break;
    }
    default:
        Unreadable("unknown type tag", line, givenTag);
    }
    return value;
}

// A path of escaped names, walked (and made) from `root`.
CFakeRegistry SelectKey(const CFakeRegistry& root, const stringEx& path, uint64_t line)
{
    CFakeRegistry key = root;
    const StringVector names = IMPL::SplitRegPath(path);
    if (names.size() > static_cast<size_t>(IMPL::kRegMaxDepth))
        Unreadable("key path nested too deep", line, path);
    for (const stringEx& name : names) {
        CFakeRegistry child;
        IMPL::RegChild(key, IMPL::RegFromUtf8(Unescape(name, kNameEscapes, line)), true, child);
        key = child;
    }
    return key;
}

void PutValue(CFakeRegistry key, const stringEx& escapedName, const stringEx& tag, const stringEx& text,
              uint64_t line)
{
    const REG_VALUE value = ParseValue(tag, text, line);
    key.SetRawValue(IMPL::RegFromUtf8(Unescape(escapedName, kNameEscapes, line)), value.type, value.data);
}

// Copies a scratch tree into a live one, key by key, each under its own lock.
void Merge(const CFakeRegistry& from, CFakeRegistry& into)
{
    RegKeyBody& source = RegAccess::Body(from);
    for (const auto& [name, value] : source.values)
        into.SetRawValue(name, value.type, value.data);
    for (const auto& [name, child] : source.subkeys) {
        CFakeRegistry target;
        IMPL::RegChild(into, name, true, target);
        Merge(child, target);
    }
}

// A key path from escaped names. A path whose last name is empty gets one
// more delimiter: a trailing delimiter names nothing, so a path of "a" and
// one backslash names a alone, and "a" and two backslashes its subkey "".
stringEx JoinPath(const StringVector& names)
{
    stringEx path;
    for (size_t i = 0; i < names.size(); ++i) {
        if (i)
            path += IMPL::g_regPathDelimiter;
        path += names[i];
    }
    if (!names.empty() && names.back().empty())
        path += IMPL::g_regPathDelimiter;
    return path;
}

// Each key's section: its own values under its own lock, then its subkeys,
// each after that lock is let go, so no two locks are ever held together.
struct Exporter {
    virtual ~Exporter() noexcept(false) = default;  // the csv writer hands its block over on the way out
    virtual void Section(const stringEx& path) = 0;
    virtual void Value(const stringEx& name, const char* tag, const stringEx& text) = 0;

    void Key(const CFakeRegistry& key, StringVector& names, bool recursive)
    {
        std::vector<std::pair<stringEx, CFakeRegistry>> children;
        {
            RegKeyBody& body = RegAccess::Body(key);
            CFastLockHolder hold(body.lock);
            if (!names.empty() || !body.values.empty())
                Section(JoinPath(names));
            for (const auto& [name, value] : body.values)
                Value(Escape(IMPL::RegToUtf8(name), kNameEscapes), TagOf(value.type), ValueText(value));
            if (recursive)
                children.assign(body.subkeys.begin(), body.subkeys.end());
        }
        if (names.size() >= static_cast<size_t>(IMPL::kRegMaxDepth) && !children.empty())
            Throw<regExp>(ExpMessage("RegExport - key nesting too deep\n").Detail("max depth", IMPL::kRegMaxDepth),
                          18);
        for (const auto& [name, child] : children) {
            names.push_back(Escape(IMPL::RegToUtf8(name), kNameEscapes));
            Key(child, names, true);
            names.pop_back();
        }
    }
};

struct IniExporter : Exporter {
    explicit IniExporter(TDataSink& sink) : sink(sink) {}
    void Put(const stringEx& text) { IMPL::WriteAll(sink, text.data(), text.size()); }
    void Section(const stringEx& path) override { Put(stringEx("\n[") + path + "]\n"); }
    void Value(const stringEx& name, const char* tag, const stringEx& text) override
    {
        Put(name + ":" + stringEx(tag) + "=" + text + "\n");
    }
    TDataSink& sink;
};

struct CsvExporter : Exporter {
    explicit CsvExporter(TDataSink& sink) : writer(std::shared_ptr<TDataSink>(std::shared_ptr<TDataSink>(), &sink)) {}
    void Section(const stringEx& path) override { writer.AppendRow({"KEY", path, stringEx()}); }
    void Value(const stringEx& name, const char* tag, const stringEx& text) override
    {
        writer.AppendRow({stringEx(tag), name, text});
    }
    CCsvWriter writer;
};

// Lines of a source, without their line feed or a carriage return before it.
class LineReader {
public:
    explicit LineReader(TDataSource& source) : _source(source) {}

    bool Next(stringEx& line)
    {
        line.clear();
        for (;;) {
            if (_pos >= _block.size()) {
                unsigned char* room = _block.GetBuffer(kCsvBlockSize);
                _block.SetSize(0);
                _pos = 0;
                const size_t got = _source.Read(room, kCsvBlockSize);
                _block.SetSize(got);
                if (got == 0) {
                    ++number;
                    return __Trim(line);
                }
            }
            const unsigned char* start = _block.data() + _pos;
            const void* feed = std::memchr(start, '\n', _block.size() - _pos);
            const uint64_t length = feed ? static_cast<const unsigned char*>(feed) - start : _block.size() - _pos;
            line.append(reinterpret_cast<const char*>(start), length);
            _pos += length;
            if (feed) {
                ++_pos;
                ++number;
                __Trim(line);
                return true;
            }
        }
    }

    uint64_t number = 0;

private:
    static bool __Trim(stringEx& line)
    {
        if (!line.empty() && line[line.size() - 1] == '\r')
            line.resize(line.size() - 1);
        return !line.empty();
    }

    TDataSource& _source;
    byteEx _block;
    uint64_t _pos = 0;
};

void ImportIniInto(const CFakeRegistry& root, TDataSource& source)
{
    LineReader lines(source);
    CFakeRegistry current = root;
    stringEx line;
    while (lines.Next(line)) {
        if (line.empty() || line[0] == ';' || line[0] == '#')
            continue;
        if (line[0] == '[') {
            if (line[line.size() - 1] != ']')
                Unreadable("section without its closing bracket", lines.number, line);
            current = SelectKey(root, line.Mid(1, line.size() - 2), lines.number);
            continue;
        }
        const uint64_t colon = line.Find(':');
        const uint64_t equals = colon == stringEx::npos ? stringEx::npos : line.Find('=', colon + 1);
        if (equals == stringEx::npos)
            Unreadable("line is neither a section nor name:TYPE=value", lines.number, line);
        PutValue(current, line.Left(colon), line.Mid(colon + 1, equals - colon - 1), line.Mid(equals + 1),
                 lines.number);
    }
}

// The whole text of a source with each CR LF line end made a line feed, as
// the rows of the parser end. Export writes every carriage return of a name
// or value as an escape, so one before a line feed belongs to the line end
// that an editor elsewhere may have saved.
byteEx WithLineFeeds(TDataSource& source)
{
    byteEx text;
    unsigned char block[kCsvBlockSize];
    bool carriageReturn = false;  // held back until the next byte is known
    for (size_t got; (got = source.Read(block, sizeof block)) > 0;) {
        for (size_t i = 0; i < got; ++i) {
            if (carriageReturn && block[i] != '\n')
                text.push_back('\r');
            carriageReturn = block[i] == '\r';
            if (!carriageReturn)
                text.push_back(block[i]);
        }
    }
    if (carriageReturn)
        text.push_back('\r');
    return text;
}

void ImportCsvInto(const CFakeRegistry& root, TDataSource& source)
{
    byteEx text = WithLineFeeds(source);
    auto memory = std::make_shared<CMemorySource>(text);
    CCsvParser parser(memory);
    CFakeRegistry current = root;
    StringVector row;
    while (parser.GetNextRow(row)) {
        const uint64_t line = parser.GetRowNumber();
        if (row.size() < 2 || row.size() > 3)
            Unreadable("row without the three columns type, name and value", line, row[0]);
        const stringEx text = row.size() == 3 ? row[2] : stringEx();
        if (row[0].EqualsNoCase("KEY")) {
            if (!text.empty())
                Unreadable("key row with a value", line, text);
            current = SelectKey(root, row[1], line);
        } else {
            PutValue(current, row[1], row[0], text, line);
        }
    }
}

template <class Body>
void Wrapped(const char* head, Body body)
{
    try {
        body();
    } catch (const karuExp& e) {
        Throw<regExp>(ExpMessage(head).Cause(e), 18);
    }
}

}  // namespace

void CFakeRegistry::ExportIni(TDataSink& sink, bool recursive) const
{
    Wrapped("CFakeRegistry::ExportIni - failed export to ini\n", [&] {
        IniExporter exporter(sink);
        StringVector names;
        exporter.Key(*this, names, recursive);
    });
}

void CFakeRegistry::ExportCsv(TDataSink& sink, bool recursive) const
{
    Wrapped("CFakeRegistry::ExportCsv - failed export to csv\n", [&] {
        CsvExporter exporter(sink);
        StringVector names;
        exporter.Key(*this, names, recursive);
        exporter.writer.Close();
    });
}

void CFakeRegistry::ImportIni(TDataSource& source)
{
    Wrapped("CFakeRegistry::ImportIni - failed import from ini\n", [&] {
        CFakeRegistry scratch;
        ImportIniInto(scratch, source);
        Merge(scratch, *this);
    });
}

void CFakeRegistry::ImportCsv(TDataSource& source)
{
    Wrapped("CFakeRegistry::ImportCsv - failed import from csv\n", [&] {
        CFakeRegistry scratch;
        ImportCsvInto(scratch, source);
        Merge(scratch, *this);
    });
}

}  // namespace Karu
