// Decoding and encoding of a large text in UTF-8, GBK and CP1252, timed
// against the system's iconv command doing the same work on the same bytes.
//
// The corpus is made here, at run time (mixed prose: mostly ASCII with
// accented Latin, some Greek and Chinese where the encoding holds them), so
// nothing large is checked in. Usage: bench_textconv [megabytes]   (200)
// Prints, per encoding and direction, both times and the ratio
// command / library (above 1: the library is faster); then, when the tool is
// built, the tool replacing a word in place in the UTF-8 corpus against
// sed -i (below 1: the tool is faster). See Tool below for the whole-process
// forms.
#include <karu/TextConv/TextConv.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

using namespace Karu;

namespace {

double Seconds(std::chrono::steady_clock::duration d)
{
    return std::chrono::duration<double>(d).count();
}

// The machine is shared: each figure is the best of a few runs.
constexpr int kRuns = 3;

template <class F>
double Best(F f)
{
    double best = 1e30;
    for (int run = 0; run < kRuns; ++run) {
        const auto start = std::chrono::steady_clock::now();
        f();
        best = std::min(best, Seconds(std::chrono::steady_clock::now() - start));
    }
    return best;
}

double TimeCommand(const std::string& command)
{
    return Best([&command] {
        if (std::system(command.c_str()) != 0)
            std::fprintf(stderr, "command failed: %s\n", command.c_str());
    });
}

// Words from the scripts the encoding can hold, joined into lines.
wstringEx Corpus(const char* encoding, size_t targetBytes)
{
    const std::wstring latin[] = {L"the", L"quick", L"brown", L"fox", L"jumps", L"over", L"lazy", L"dog",
                                  L"caf\xE9", L"na\xEFve", L"r\xE9sum\xE9", L"stra\xDF" L"e", L"\xA3" L"42",
                                  L"text", L"encoding", L"replace"};
    const std::wstring chinese[] = {L"\x4F60\x597D", L"\x4E16\x754C", L"\x6587\x672C", L"\x66FF\x6362",
                                    L"\x7F16\x7801"};
    const std::wstring greek[] = {L"\x3B1\x3BB\x3C6\x3B1", L"\x3BB\x3CC\x3B3\x3BF\x3C2"};
    const bool cjk = std::string(encoding) != "CP1252";
    std::mt19937 random(7);
    std::wstring text;
    text.reserve(targetBytes);
    size_t bytes = 0, column = 0;
    while (bytes < targetBytes) {
        const unsigned pick = random() % 20;
        const std::wstring& word = cjk && pick < 4 ? chinese[pick % 5]
                                   : std::string(encoding) == "UTF-8" && pick == 4 ? greek[random() % 2]
                                                                                   : latin[random() % 16];
        text += word;
        bytes += word.size() + (word[0] >= 0x80 ? word.size() : 0);
        column += word.size() + 1;
        text += column > 72 ? L'\n' : L' ';
        if (column > 72)
            column = 0;
        ++bytes;
    }
    return wstringEx(text.data(), text.size());
}

void Run(const char* encoding, size_t megabytes)
{
    TextConvPtr conv = TTextConv::CreateConv(0, stringEx(encoding));
    const stringEx bytes = conv->WCtoMB(Corpus(encoding, megabytes << 20));
    const std::string path = "/tmp/bench_textconv_" + std::to_string(getpid());
    FILE* file = std::fopen(path.c_str(), "wb");
    std::fwrite(bytes.data(), 1, bytes.size(), file);
    std::fclose(file);

    // Into a fresh string, as for a program's first file: the cost of new
    // memory is part of the figure. Then into the same string again, as for
    // the files after it: the conversion alone.
    wstringEx wide;
    const double decode = Best([&] {
        wstringEx fresh;
        conv->MBtoWC(fresh, bytes);
        wide = fresh;
    });
    const double decodeAgain = Best([&] { conv->MBtoWC(wide, bytes); });
    stringEx back;
    const double encode = Best([&] {
        stringEx fresh;
        conv->WCtoMB(fresh, wide);
        back = fresh;
    });
    const double encodeAgain = Best([&] { conv->WCtoMB(back, wide); });
    if (!(back == bytes))
        std::fprintf(stderr, "%s: the round trip changed the text\n", encoding);

    const std::string widePath = path + ".wide";
    file = std::fopen(widePath.c_str(), "wb");
    std::fwrite(wide.data(), sizeof(wchar_t), wide.size(), file);
    std::fclose(file);
    const double toolDecode = TimeCommand("iconv -f " + std::string(encoding) + " -t UTF-32LE " + path + " > /dev/null");
    const double toolEncode =
        TimeCommand("iconv -f UTF-32LE -t " + std::string(encoding) + " " + widePath + " > /dev/null");
    std::remove(path.c_str());
    std::remove(widePath.c_str());

    std::printf("%-7s %4.0f MB  decode %6.3f s, reusing %6.3f s (iconv %6.3f s: %5.2fx, %5.2fx)"
                "   encode %6.3f s, reusing %6.3f s (iconv %6.3f s: %5.2fx, %5.2fx)\n",
                encoding, bytes.size() / 1048576.0, decode, decodeAgain, toolDecode, toolDecode / decode,
                toolDecode / decodeAgain, encode, encodeAgain, toolEncode, toolEncode / encode,
                toolEncode / encodeAgain);
    std::fflush(stdout);
}

#if defined(KARU_TOOL_PROGRAM)
// The tool replacing a word in place in the UTF-8 corpus, against sed -i
// doing the same to a copy. The word is replaced by itself, so that every
// run has the same matches to replace and both keep rewriting the file.
void RunTool(size_t megabytes)
{
    TextConvPtr conv = TTextConv::CreateConv(0, stringEx("UTF-8"));
    const stringEx bytes = conv->WCtoMB(Corpus("UTF-8", megabytes << 20));
    const std::string base = "/tmp/bench_textconv_" + std::to_string(getpid());
    const std::string ours = base + ".tool", theirs = base + ".sed", pairs = base + ".pairs";
    for (const std::string& path : {ours, theirs}) {
        FILE* file = std::fopen(path.c_str(), "wb");
        std::fwrite(bytes.data(), 1, bytes.size(), file);
        std::fclose(file);
    }
    FILE* file = std::fopen(pairs.c_str(), "wb");
    std::fputs("fox->fox\n", file);
    std::fclose(file);

    const double tool = TimeCommand(std::string(KARU_TOOL_PROGRAM) + " " + ours + " -f -argfile:" + pairs +
                                    " -encin:UTF-8 -encarg:UTF-8 > /dev/null");
    const double sed = TimeCommand("sed -i 's/fox/fox/g' " + theirs);
    for (const std::string& path : {ours, theirs, pairs})
        std::remove(path.c_str());
    std::printf("ostrel -f in place %4.0f MB  %6.3f s, sed -i %6.3f s: ostrel takes %4.2fx the time of sed\n",
                bytes.size() / 1048576.0, tool, sed, tool / sed);
    std::fflush(stdout);
}
#endif

}  // namespace

// Whole-process forms, for timing against the command from outside:
//   corpus ENCODING MEGABYTES FILE   writes a corpus
//   decode ENCODING FILE             the file to UTF-32LE on standard output
//   encode ENCODING FILE             UTF-32LE in the file to the encoding
int Tool(int argc, char** argv)
{
    const std::string mode = argv[1];
    const char* encoding = argv[2];
    TextConvPtr conv = TTextConv::CreateConv(0, stringEx(encoding));
    if (mode == "corpus" && argc == 5) {
        const stringEx bytes = conv->WCtoMB(Corpus(encoding, std::strtoul(argv[3], nullptr, 10) << 20));
        FILE* file = std::fopen(argv[4], "wb");
        std::fwrite(bytes.data(), 1, bytes.size(), file);
        return std::fclose(file) == 0 ? 0 : 1;
    }
    FILE* file = std::fopen(argv[3], "rb");
    if (!file)
        return 1;
    std::fseek(file, 0, SEEK_END);
    const long size = std::ftell(file);
    std::fseek(file, 0, SEEK_SET);
    stringEx content;
    char* data = content.GetBuffer(static_cast<uint64_t>(size));
    content.SetSize(std::fread(data, 1, static_cast<size_t>(size), file));
    std::fclose(file);
    if (mode == "decode") {
        const wstringEx wide = conv->MBtoWC(content);
        std::fwrite(wide.data(), sizeof(wchar_t), wide.size(), stdout);
    } else {
        const stringEx bytes = conv->WCtoMB(
            wstringEx(reinterpret_cast<const wchar_t*>(content.data()), content.size() / sizeof(wchar_t)));
        std::fwrite(bytes.data(), 1, bytes.size(), stdout);
    }
    return 0;
}

int main(int argc, char** argv)
{
    if (argc >= 4)
        return Tool(argc, argv);
    const size_t megabytes = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 200;
    for (const char* encoding : {"UTF-8", "GBK", "CP1252"})
        Run(encoding, megabytes);
#if defined(KARU_TOOL_PROGRAM)
    RunTool(megabytes);
#endif
    return 0;
}
