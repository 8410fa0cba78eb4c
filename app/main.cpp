// ostrel: applies the find/replace pairs of an arguments file, one after
// another, to every file that the patterns name, or to standard input.
//
// All run state lives in main's locals. The order of a run: locale; the
// command line; the listings; the arguments encoding; the method (or the
// usage); the pairs; the input and output encodings and their compatibility;
// the file list; then each file is read whole into one wide string, every
// pair applied in turn, and the text written back only if something was
// replaced. Files are rewritten in place, without temporary file or backup.
// Where it gives the same bytes, a file or a stream is worked through a few
// lines at a time instead of whole (pieces.h). Bytes that the input encoding
// cannot decode are carried through as escape units and written back as
// they were when the output encoding is the input's; into another encoding
// they cannot go, and such a file is not rewritten (unless -force), such a
// stream ends there with status -1.
//
// Only regular files are read: a FIFO, socket or device that a pattern names
// is skipped with a notice, never opened for reading, since reading one
// could wait forever or never end.
//
// Failures: a file that cannot be read or written is reported and skipped
// (or ends the run with -errstop), and so is an entry of the tree that the
// search cannot follow (a dangling link, a link loop, an unreadable
// directory); any other failure of the library ends the run with status -1
// through the outer handler. Other exceptions are reported but end with
// status 0, so that only the tool's own failures fail a calling script.
// Standard output that refuses a write ends the run: quietly when its reader
// went away, as in "| head", and with status -1 otherwise (a full disk, a
// device error), since the output is then incomplete.
#include <sys/stat.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

// The size of a piece (pieces.h): large enough that the per-piece costs
// vanish, small enough to stay in the caches. The tests set it down to one
// byte through OSTREL_PIECE_BYTES, so that every cut is tried.
uint64_t PieceBytes()
{
    constexpr uint64_t kPieceBytes = uint64_t(1) << 16;
    const char* given = std::getenv("OSTREL_PIECE_BYTES");
    const unsigned long long value = given ? std::strtoull(given, nullptr, 10) : 0;
    return value > 0 ? value : kPieceBytes;
}

// Whether the output writes what the input read: escape units then go back
// as their bytes. The same name, or converters of one back end that
// accepted one encoding, or plain UTF-8 on both sides.
bool SameEncoding(const ENCODING_SIDE& input, const ENCODING_SIDE& output)
{
    if (input.wide || output.wide)
        return input.wide == output.wide && input.swapped == output.swapped;
    if (input.conv == output.conv || input.name.EqualsNoCase(output.name))
        return true;
    if (input.conv->IsPlainUtf8() && output.conv->IsPlainUtf8())
        return true;
    return !input.conv->Encoding().empty() && input.conv->BackEnd() == output.conv->BackEnd() &&
           input.conv->Encoding().EqualsNoCase(output.conv->Encoding());
}

// Why an escape unit was not written, with where its byte was read.
stringEx UnwritableMessage(uint64_t offset, const stringEx& encoding)
{
    return ExpMessage("ostrel - input that could not be decoded can't be written in another encoding\n")
        .Detail("input offset", static_cast<int64_t>(offset))
        .Detail("output encoding", encoding);
}

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

// A FIFO, socket or device is skipped; a name that cannot be stat'ed is left
// to the read, which reports why.
bool IsRegularFile(const stringEx& path)
{
    struct stat status;
    return stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode);
}

void ReportNotRegular(const stringEx& file)
{
    Print(stringEx("[NOTICE] skipped, not a regular file: ") + file + "\n", stderr);
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

    // The delimiter is compared as text with the arguments text, so it is
    // decoded like it (a wide-unit arguments file has the default's).
    wstringEx delimiter(L"->");
    if (has("dlm"))
        arguments.conv->MBtoWCCarrying(delimiter, cmdLine.GetValue(stringEx("dlm")));

    stringEx argumentsPath = cmdLine.GetValue(stringEx("argfile"));
    CDir::ConvToFullPath(argumentsPath);
    wstringEx text, scratch;
    ReadTextFile(scratch, argumentsPath, arguments.conv, arguments.wide, arguments.swapped);
    // A signature is no part of the first pair.
    if (!scratch.empty() && scratch[0] == signature[0])
        scratch.erase(0, 1);
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
        WriteStdout(IncompatibleConversionMessage(input.name, output.name));
        return kIncompatibleConversionStatus;
    }

    const bool withSignature = has("unisign");
    const bool errorStop = has("errstop");
    const EscapeWriting escapes = SameEncoding(input, output) ? EscapeWriting::kCarry
                                  : has("force")              ? EscapeWriting::kOrdinary
                                                              : EscapeWriting::kRefuse;

    // The same bytes either way; by pieces, memory stays near the file's
    // size, and a stream's at a few pieces.
    const bool byPieces = !input.wide && !output.wide && input.conv->ConvertsByLines() &&
                          output.conv->ConvertsByLines() && PairsAllowPieces(method.method, pairs);
    const bool piecesSigned = withSignature && !toStdout && output.name.EqualsNoCase(stringEx("utf-8"));
    PIECES_OPTIONS pieceOptions;
    pieceOptions.pieceBytes = PieceBytes();
    pieceOptions.inPlace = inPlace;
    pieceOptions.escapes = escapes;

    StringVector files;
    uint32_t fileCount = 1;
    if (!streamMode) {
        // An entry the search cannot follow is reported and left out; with
        // -errstop the first one ends the run.
        bool searchStopped = false;
        const SearchProblemHandler onProblem = [&](const stringEx& path, const karuExp& problem) {
            Print(stringEx("[ERROR] failed searching: ") + path + "\n@ " + problem.message + "\n", stderr);
            searchStopped = errorStop;
            return !errorStop;
        };
        const CDir here(stringEx("."));
        try {
            for (int64_t i = 0; i < cmdLine.PatternCount(); ++i)
                here.GetAllFiles(files, cmdLine.GetFileArg(static_cast<uint32_t>(i)), recursive, !errorStop, 0,
                                 onProblem);
        } catch (const karuExp&) {
            if (searchStopped)
                return kExitFailure;
            throw;
        }
        if (files.empty()) {
            std::fputs("[FATAL ERROR] can't find the file(s)!\n", stderr);
            return kExitFailure;
        }
        fileCount = static_cast<uint32_t>(files.size());
    }

    // The pairs over the whole of `text`; false for a method without a routine.
    auto replaceWhole = [&](uint32_t& replaced) {
        if (!text.empty() && text[0] == signature[0])
            text.erase(0, 1);
        for (const REPLACE_PAIR& pair : pairs) {
            bool known;
            replaced += ApplyPair(method.method, pair, text, scratch, inPlace, known);
            if (!known)
                return false;
        }
        return true;
    };
    // Escape units into a wide-unit output, which has no bytes to write them
    // as: their position, npos where they may go as units.
    auto unitsStop = [&]() { return escapes == EscapeWriting::kRefuse ? FindEscapeUnit(text) : wstringEx::npos; };

    uint32_t total = 0;
    if (streamMode) {
        // Standard input to standard output: exactly the input, replaced.
        bool unwritable = false;
        uint64_t unwritableAt = 0;
        if (byPieces) {
            CSysFile in;
            in.Open(0);
            PIECES_OPTIONS options = pieceOptions;
            // Each piece goes out as it is done, not when a buffer fills:
            // a reader of the stream sees the output as the input comes.
            options.flush = [](stringEx& encoded) {
                WriteStdout(encoded);
                encoded.clear();
            };
            stringEx encoded;
            // Output that is refused ends the input too.
            const PIECES_RESULT result = ReplaceByPieces(
                [&in](char* room, uint64_t n) { return StdoutError() ? 0 : in.Read(room, n); }, method.method,
                pairs, *input.conv, *output.conv, encoded, options);
            total += result.replaced;
            unwritable = result.unwritable;
            unwritableAt = result.unwritableAt;
        } else {
            stringEx bytes, tail;
            if (input.wide) {
                text = ReadStdinUnits(tail);
                if (input.swapped)
                    SwapUnits(text);
            } else {
                bytes = ReadStdinBytes();
                input.conv->MBtoWCCarrying(text, bytes);
                // Kept only to say where a byte that cannot be written was.
                if (escapes != EscapeWriting::kRefuse)
                    bytes = stringEx();
            }
            uint32_t replaced = 0;
            if (!replaceWhole(replaced)) {
                std::fputs("[FATAL ERROR] unknown func!\n", stderr);
                return kExitUnknownMethod;
            }
            total += replaced;
            uint64_t stop;
            if (output.wide) {
                stop = unitsStop();
                if (stop != wstringEx::npos)
                    text.resize(stop);
                if (output.swapped)
                    SwapUnits(text);
                WriteStdoutUnits(text);
                if (stop == wstringEx::npos)
                    WriteStdout(tail);
            } else {
                stringEx encoded;
                stop = EncodeText(*output.conv, escapes, text, encoded);
                WriteStdout(encoded);
            }
            if (stop != wstringEx::npos) {
                const uint64_t bad = FirstUndecodable(*input.conv, bytes);
                unwritable = true;
                unwritableAt = bad < bytes.size() ? bad : 0;
            }
        }
        if (StdoutError())
            return 0;  // main tells what became of the output
        if (unwritable) {
            Print(stringEx("[ERROR] can't write to standard output\n@ ") +
                      UnwritableMessage(unwritableAt, output.name) + "\n",
                  stderr);
            return kExitFailure;
        }
    }

    for (uint32_t i = 0; i < fileCount && !streamMode; ++i) {
        if (EqualsNoCase<char>(argumentsPath, files[i]))
            continue;  // the arguments file is never rewritten by its own pairs
        if (!IsRegularFile(files[i])) {
            ReportNotRegular(files[i]);
            continue;
        }

        text.clear();
        stringEx tail;    // wide units: the bytes behind the last whole unit
        CSysFile source;  // the file, when it is read by pieces
        try {
            // The same open as the whole-file reader's, shared lock included;
            // one that became a FIFO since the check above must not hold the
            // open up.
            if (byPieces)
                source.Open(files[i], O_RDONLY, O_NONBLOCK, kShareShared);
            else
                ReadTextFile(text, files[i], input.conv, input.wide, input.swapped, &tail);
        } catch (const karuExp& e) {
            ReportReadFailure(files[i], e.message);
            if (errorStop)
                return kExitFailure;
            continue;
        }

        uint32_t replaced = 0;
        stringEx encoded;  // the output, when made by pieces or encoded
        bool unwritable = false;
        uint64_t unwritableAt = 0;
        if (byPieces) {
            if (piecesSigned)
                encoded = utf8Signature;
            // The file's size lets the result take its room in one or two
            // steps instead of regrowing, a copy each time.
            struct stat status;
            const bool statted = fstat(source.Descriptor(), &status) == 0;
            if (statted && !S_ISREG(status.st_mode)) {
                ReportNotRegular(files[i]);
                continue;
            }
            const bool sized = statted && status.st_size > 0;
            PIECES_OPTIONS options = pieceOptions;
            options.sizeHint = sized ? static_cast<uint64_t>(status.st_size) : 0;
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
            const PIECES_RESULT result =
                ReplaceByPieces(read, method.method, pairs, *input.conv, *output.conv, encoded, options);
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
            unwritable = result.unwritable;
            unwritableAt = result.unwritableAt;
        } else {
            if (text.empty())
                continue;
            if (!replaceWhole(replaced)) {
                std::fputs("[FATAL ERROR] unknown func!\n", stderr);
                return kExitUnknownMethod;
            }
            if (toStdout || replaced != 0) {
                uint64_t stop;
                if (output.wide) {
                    stop = unitsStop();
                } else {
                    if (withSignature && !toStdout && output.name.EqualsNoCase(stringEx("utf-8")))
                        encoded = utf8Signature;
                    stringEx body;
                    stop = EncodeText(*output.conv, escapes, text, body);
                    encoded.append(body);
                }
                if (stop != wstringEx::npos) {
                    // Where the file's first undecodable byte lies: the file
                    // is read again, on this rare road only.
                    unwritable = true;
                    byteEx again;
                    try {
                        CDir::ReadFile(files[i], again);
                    } catch (const karuExp&) {
                    }
                    const uint64_t bad = FirstUndecodable(*input.conv, again.Reinterpret<char>());
                    unwritableAt = bad < again.size() ? bad : 0;
                }
            }
        }
        if (unwritable) {
            Print(stringEx("[ERROR] can't write to file: ") + files[i] + "\n@ " +
                      UnwritableMessage(unwritableAt, output.name) + "\n",
                  stderr);
            if (errorStop)
                return kExitFailure;
            continue;
        }

        if (toStdout) {
            if (byPieces || !output.wide) {
                WriteStdout(encoded);
            } else {
                if (output.swapped)
                    SwapUnits(text);
                WriteStdoutUnits(text);
                WriteStdout(tail);
            }
            if (StdoutError())
                return 0;
            total += replaced;
            continue;
        }
        if (replaced == 0)
            continue;

        byteEx bytes;
        if (output.wide && !byPieces) {
            if (withSignature && !signature.empty())
                text.insert(0, signature);
            if (output.swapped)
                SwapUnits(text);
            if (!tail.empty()) {
                stringEx units = text.Reinterpret<char>();
                units.append(tail);
                bytes = units.Reinterpret<unsigned char, byte_traits>();
            } else {
                bytes = text.Reinterpret<unsigned char, byte_traits>();
            }
        } else {
            bytes = encoded.Reinterpret<unsigned char, byte_traits>();
        }
        try {
            CDir::WriteFile(files[i], bytes, false, false);
            if (fileCounts)
                WriteStdout(stringEx::Format("\n## %u replacements in file: ", replaced) + files[i] + "\n");
        } catch (const karuExp& e) {
            Print(stringEx("[ERROR] can't write to file: ") + files[i] + "\n@ " + e.message + "\n", stderr);
            if (errorStop)
                return kExitFailure;
            continue;
        }
        total += replaced;
        if (StdoutError())
            return 0;
    }

    if (totalCount && total != 0)
        WriteStdout(stringEx::Format("\n## total replaced %u matchs\n", total));
    return 0;
}

// A run whose output was refused fails, unless the reader merely went away.
int WithOutputChecked(int status)
{
    const int error = StdoutError();
    if (error == 0 || error == EPIPE)
        return status;
    Print(stringEx("[FATAL ERROR] can't write to standard output: ") + std::strerror(error) + "\n", stderr);
    return kExitFailure;
}

}  // namespace

int main(int argc, char** argv)
{
    std::setlocale(LC_ALL, "");
    try {
        return WithOutputChecked(Run(argc, argv));
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
