// Decoding and encoding of a large text in UTF-8, GBK and CP1252, timed
// against the system's iconv command doing the same work on the same bytes.
//
// The corpus is made here, at run time (mixed prose: mostly ASCII with
// accented Latin, some Greek and Chinese where the encoding holds them), so
// nothing large is checked in. Usage: bench_textconv [megabytes]   (200)
// Prints, per encoding and direction, both times and the ratio
// command / library (above 1: the library is faster).
#include <karu/TextConv/TextConv.h>

#include <unistd.h>

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

double TimeCommand(const std::string& command)
{
    const auto start = std::chrono::steady_clock::now();
    if (std::system(command.c_str()) != 0)
        std::fprintf(stderr, "command failed: %s\n", command.c_str());
    return Seconds(std::chrono::steady_clock::now() - start);
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

    wstringEx wide;
    auto start = std::chrono::steady_clock::now();
    conv->MBtoWC(wide, bytes);
    const double decode = Seconds(std::chrono::steady_clock::now() - start);
    stringEx back;
    start = std::chrono::steady_clock::now();
    conv->WCtoMB(back, wide);
    const double encode = Seconds(std::chrono::steady_clock::now() - start);
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

    std::printf("%-7s %5.0f MB  decode %6.3f s (iconv %6.3f s, %5.2fx)   encode %6.3f s (iconv %6.3f s, %5.2fx)"
                "   shortcut: %s\n",
                encoding, bytes.size() / 1048576.0, decode, toolDecode, toolDecode / decode, encode, toolEncode,
                toolEncode / encode, conv->BackEnd() == stringEx("iconv") ? "see library" : "none");
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv)
{
    const size_t megabytes = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 200;
    for (const char* encoding : {"UTF-8", "GBK", "CP1252"})
        Run(encoding, megabytes);
    return 0;
}
