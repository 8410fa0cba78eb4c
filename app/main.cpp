// ostrel: applies the find/replace pairs of an arguments file, one after
// another, to every file that the patterns name, or to standard input.
//
// All run state lives in main's locals. The order of a run: locale; the
// command line; the listings; the arguments encoding; the method (or the
// usage); the pairs; the input and output encodings and their compatibility;
// the file list; then each file is read whole into one wide string, every
// pair applied in turn, and the text written back only if something was
// replaced. Files are rewritten in place, without temporary file or backup.
// Where it gives the same bytes, a file is worked through a few lines at a
// time instead of whole (pieces.h).
//
// Failures: a file that cannot be read or written is reported and skipped
// (or ends the run with -errstop); any other failure of the library ends the
// run with status -1 through the outer handler. Other exceptions are
// reported but end with status 0, so that only the tool's own failures fail
// a calling script.
#include <sys/stat.h>

#include <clocale>
#include <cstdio>
#include <exception>
#include <optional>
#include <set>

#include <karu/TextConv/TextConv.h>
#include <karu/file/dir.h>
#include <karu/file/sysfile.h>
#include <karu/string/karuExp.h>

#include "cmdline.h"
#include "methods.h"
#include "pairs.h"
#include "pieces.h"
#include "textio.h"
#include "usage.h"

using namespace Karu;

namespace {

constexpr int kExitFailure = -1;  // the shell sees 255
constexpr int kExitUnknownMethod = 1;

struct NoCaseLess {
    bool operator()(const stringEx& a, const stringEx& b) const { return CompareNoCase<char>(a, b) < 0; }
};
using NameSet = std::set<stringEx, NoCaseLess>;

// One side of a conversion as the switches set it up.
struct ENCODING_SIDE {
    ConvPtr conv;
    stringEx name;
    bool wide = false;
    bool swapped = false;
};

// A value switch's name as typed, blanks dropped at both ends.
stringEx TrimmedValue(const CCmdLine& cmdLine, const char* name)
{
    stringEx value = cmdLine.GetValue(stringEx(name));
    value.TrimRight().TrimLeft();
    return value;
}

// Wide-unit names keep the default conversion and only set the flags; any
// other name gets its own converter.
void ApplyEncodingName(ENCODING_SIDE& side, const stringEx& name, const NameSet& wideUnits,
                       const NameSet& swappedUnits)
{
    if (wideUnits.count(name)) {
        side.wide = true;
        side.swapped = swappedUnits.count(name) != 0;
    } else {
        side.conv = TTextConv::CreateConv(0, name);
        side.wide = side.swapped = false;
    }
}

void Print(const stringEx& text, FILE* stream)
{
    std::fwrite(text.data(), 1, text.size(), stream);
}

void ReportReadFailure(const stringEx& file, const stringEx& message)
{
    Print(stringEx("[ERROR] failed reading file: ") + file + "\n@ " + message + "\n", stderr);
}

int Run(int argc, char** argv)
{
    const NameSet wideUnits = {"UTF-16", "CP1200", "UTF-16LE", "UCS-2", "UCS-2LE", "UTF-16BE", "UCS-2BE", "CP1201"};
    const NameSet swappedUnits = {"UTF-16BE", "UCS-2BE", "CP1201"};
    const wstringEx signature(L"\uFEFF");
    const stringEx utf8Signature("\xEF\xBB\xBF");

    CCmdLine cmdLine(stringEx("-"), stringEx(":="), 1);
    cmdLine.Parse(argc, argv);
    auto has = [&](const char* name) { return cmdLine.FindSwitch(stringEx(name)) >= 0; };

    // The listings need nothing else from the command line.
    if (has("listenc")) {
        ListEncodings();
        return 0;
    }
    if (has("listcmp")) {
        ListCompatible();
        return 0;
    }

    ENCODING_SIDE arguments;
    arguments.conv = TTextConv::GetSysConv();
    if (has("encarg"))
        ApplyEncodingName(arguments, TrimmedValue(cmdLine, "encarg"), wideUnits, swappedUnits);

    const METHOD_CHOICE method = SelectMethod(cmdLine);
    // A bare "?" is a file pattern; only "-?" asks for help.
    if (has("h") || cmdLine.FindSwitchExact(stringEx("?")) >= 0 || method.method == kMethodNone ||
        !has("argfile")) {
        ShowUsage();
        return 0;
    }

    const wstringEx delimiter = has("dlm") ? Widen(cmdLine.GetValue(stringEx("dlm"))) : wstringEx(L"->");

    stringEx argumentsPath = cmdLine.GetValue(stringEx("argfile"));
    CDir::ConvToFullPath(argumentsPath);
    wstringEx text, scratch;
    ReadTextFile(scratch, argumentsPath, arguments.conv, arguments.wide, arguments.swapped);
    ReplacePairs pairs;
    LoadPairs(pairs, scratch, delimiter, method.method == kMethodRegex, method.ignoreCase, method.ignoreNewline);

    const bool inPlace = has("noexp");
    const bool recursive = has("s");
    const bool streamMode = has("stdio") || cmdLine.PatternCount() <= 0;
    const bool toStdout = has("stdout");
    const bool fileCounts = has("frc");
    const bool totalCount = has("trc");

    ENCODING_SIDE input;
    input.conv = TTextConv::GetSysConv();
    input.name = TTextConv::GetSysEncoding();
    if (has("encin")) {
        input.name = TrimmedValue(cmdLine, "encin");
        ApplyEncodingName(input, input.name, wideUnits, swappedUnits);
    }
    // A named output outside the wide-unit family still follows the input's
    // flags: wide-unit input is written back in wide units whatever -encout
    // says, and the converter built for it goes unused.
    ENCODING_SIDE output = input;
    if (has("encout")) {
        output.name = TrimmedValue(cmdLine, "encout");
        if (wideUnits.count(output.name)) {
            output.wide = true;
            output.swapped = swappedUnits.count(output.name) != 0;
        } else {
            output.conv = TTextConv::CreateConv(0, output.name);
        }
    }

    // The check compares names only, so it runs for wide-unit names too.
    if (!has("force") && !TTextConv::IsCompatible(input.name, output.name, nullptr)) {
        Print(IncompatibleConversionMessage(input.name, output.name), stdout);
        std::fflush(stdout);
        return kIncompatibleConversionStatus;
    }

    const bool withSignature = has("unisign");
    const bool errorStop = has("errstop");

    // The same bytes either way; by pieces, memory stays near the file's size.
    const bool byPieces = !streamMode && !inPlace && !input.wide && !output.wide && input.conv->ConvertsByLines() &&
                          output.conv->ConvertsByLines() && PairsAllowPieces(method.method, pairs);
    const bool piecesSigned = withSignature && !toStdout && output.name.EqualsNoCase(stringEx("utf-8"));

    StringVector files;
    uint32_t fileCount = 1;
    if (!streamMode) {
        const CDir here(stringEx("."));
        for (int64_t i = 0; i < cmdLine.PatternCount(); ++i)
            here.GetAllFiles(files, cmdLine.GetFileArg(static_cast<uint32_t>(i)), recursive, !errorStop, 0);
        if (files.empty()) {
            std::fputs("[FATAL ERROR] can't find the file(s)!\n", stderr);
            return kExitFailure;
        }
        fileCount = static_cast<uint32_t>(files.size());
    }

    uint32_t total = 0;
    for (uint32_t i = 0; i < fileCount; ++i) {
        if (!streamMode && EqualsNoCase<char>(argumentsPath, files[i]))
            continue;  // the arguments file is never rewritten by its own pairs

        text.clear();
        CSysFile source;  // the file, when it is read by pieces
        if (streamMode) {
            if (input.wide) {
                text = ReadStdinUnits();
                if (input.swapped)
                    SwapUnits(text);
            } else {
                text = input.conv->MBtoWC(ReadStdinBytes());
            }
        } else {
            try {
                // The same open as the whole-file reader's, shared lock included.
                if (byPieces)
                    source.Open(files[i], O_RDONLY, 0, kShareShared);
                else
                    ReadTextFile(text, files[i], input.conv, input.wide, input.swapped);
            } catch (const karuExp& e) {
                ReportReadFailure(files[i], e.message);
                if (errorStop)
                    return kExitFailure;
                continue;
            }
        }

        uint32_t replaced = 0;
        stringEx encoded;  // the output, when made by pieces
        if (byPieces) {
            if (piecesSigned)
                encoded = utf8Signature;
            // The file's size lets the result take its room in one or two
            // steps instead of regrowing, a copy each time.
            struct stat status;
            const bool sized = fstat(source.Descriptor(), &status) == 0 && status.st_size > 0;
            const uint64_t sizeHint = sized ? static_cast<uint64_t>(status.st_size) : 0;
            // A read that fails ends the pieces; what was made of them is dropped.
            std::optional<stringEx> readFailure;
            const PieceReader read = [&](char* room, uint64_t n) -> uint64_t {
                try {
                    return source.Read(room, n);
                } catch (const karuExp& e) {
                    readFailure = e.message;
                    return 0;
                }
            };
            const PIECES_RESULT result = ReplaceByPieces(read, method.method, pairs, *input.conv, *output.conv,
                                                         encoded, uint64_t(1) << 16, sizeHint);
            source.Close();
            if (readFailure) {
                ReportReadFailure(files[i], *readFailure);
                if (errorStop)
                    return kExitFailure;
                continue;
            }
            if (result.empty)
                continue;
            replaced = result.replaced;
        } else {
            if (text.empty())
                continue;
            if (text[0] == signature[0])
                text.erase(0, 1);
            for (const REPLACE_PAIR& pair : pairs) {
                bool known;
                replaced += ApplyPair(method.method, pair, text, scratch, inPlace, known);
                if (!known) {
                    std::fputs("[FATAL ERROR] unknown func!\n", stderr);
                    return kExitUnknownMethod;
                }
            }
        }

        if (streamMode || toStdout) {
            if (byPieces) {
                WriteStdout(encoded);
            } else if (output.wide) {
                if (output.swapped)
                    SwapUnits(text);
                WriteStdoutUnits(text);
            } else {
                WriteStdout(output.conv->WCtoMB(text));
            }
            total += replaced;
            continue;
        }
        if (replaced == 0)
            continue;

        byteEx bytes;
        if (byPieces) {
            bytes = encoded.Reinterpret<unsigned char, byte_traits>();
        } else if (output.wide) {
            if (withSignature && !signature.empty())
                text.insert(0, signature);
            if (output.swapped)
                SwapUnits(text);
            bytes = text.Reinterpret<unsigned char, byte_traits>();
        } else {
            stringEx encoded;
            if (withSignature && output.name.EqualsNoCase(stringEx("utf-8")))
                encoded = utf8Signature;
            encoded.append(output.conv->WCtoMB(text));
            bytes = encoded.Reinterpret<unsigned char, byte_traits>();
        }
        try {
            CDir::WriteFile(files[i], bytes, false, false);
            if (fileCounts) {
                std::printf("\n## %u replacements in file: ", replaced);
                Print(files[i], stdout);
                std::fputs("\n", stdout);
            }
        } catch (const karuExp& e) {
            Print(stringEx("[ERROR] can't write to file: ") + files[i] + "\n@ " + e.message + "\n", stderr);
            if (errorStop)
                return kExitFailure;
            continue;
        }
        total += replaced;
    }

    if (totalCount && total != 0) {
        std::printf("\n## total replaced %u matchs\n", total);
        std::fflush(stdout);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    std::setlocale(LC_ALL, "");
    try {
        return Run(argc, argv);
    } catch (const karuExp& e) {
        Print(stringEx("[FATAL ERROR] Karu runtime lib error: ") + e.message + "\n", stderr);
        return kExitFailure;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "[FATAL ERROR] vc runtime lib error: %s\n", e.what());
        return 0;
    } catch (...) {
        std::fputs("[FATAL ERROR] unknown system error\n", stderr);
        return 0;
    }
}
