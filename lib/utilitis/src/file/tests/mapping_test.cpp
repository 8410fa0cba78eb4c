// Dynamic libraries (the name search and the two failure codes) and file
// mapping (shared and private views, page alignment, and who unmaps).
#include <karu/file/dllLoader.h>
#include <karu/file/fileMapping.h>

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "sync/tests/forktest.h"
#include "text_helpers.h"

using namespace Karu;
using namespace KaruTest;

namespace {

bool Mapped(void* address, size_t size)
{
    return msync(address, size, MS_ASYNC) == 0 || errno != ENOMEM;
}

}  // namespace

TEST(DllLoader, NameSearchAndFailureCodes)
{
    struct Row {
        const char* name;
        const char* version;
        const char* extension;
        const char* loaded;    // Path() when it loads, null when it must fail
        const char* reported;  // the "dll path" of the failure
    } rows[] = {
        // "lib" is put in front of a bare name that is not found as given.
        {"icuuc", "72", "so", "libicuuc.so.72", nullptr},
        {"libicuuc.so.72", "", "", "libicuuc.so.72", nullptr},
        {"iconv", "", "so", nullptr, "iconv.so"},
        // A path and a name already beginning with "lib" get no second try.
        {"/nonexistent/icuuc.so.72", "", "", nullptr, "/nonexistent/icuuc.so.72"},
        {"libnothing-here", "", "so", nullptr, "libnothing-here.so"},
        // An empty name is the program itself, whatever the extension.
        {"", "", "so", "", nullptr},
    };
    for (const Row& row : rows) {
        try {
            CDllLoader loader(stringEx(row.name), stringEx(row.version), stringEx(row.extension));
            ASSERT_TRUE(row.loaded) << row.name << " should not load";
            EXPECT_EQ(S(loader.Path()), row.loaded);
        } catch (const dlllExp& e) {
            ASSERT_FALSE(row.loaded) << row.name << ": " << S(e.message);
            EXPECT_EQ(e.code, kDllLoadFailed);
            EXPECT_EQ(S(e.message).rfind(std::string("CDllLoader::CDllLoader - error loading dynamic library\n"
                                                     "  dll path       = ") +
                                             row.reported + "\n  sys error desc = ",
                                         0),
                      0u)
                << S(e.message);
        }
    }

    // A name given whole is used as it stands: no "lib" in front of it.
    EXPECT_EQ(S(CDllLoader(wstringEx(L"libicuuc.so.72")).Path()), "libicuuc.so.72");
    for (const std::function<void()>& whole : std::vector<std::function<void()>>{
             [] { CDllLoader(wstringEx(L"icuuc.so.72")); }, [] { CDllLoader(stringEx("icuuc.so.72")); }})
        EXPECT_EQ(MessageOf<dlllExp>(whole).rfind("CDllLoader::CDllLoader - error loading dynamic library\n"
                                                  "  dll path       = icuuc.so.72\n",
                                                  0),
                  0u);

    CDllLoader self(stringEx(""));
    EXPECT_NE(self.GetProc(stringEx("iconv_open")), nullptr);
    EXPECT_NE(self.GetProc(wstringEx(L"iconv_close")), nullptr);
    int32_t code = 0;
    EXPECT_EQ(MessageOf<dlllExp>([&] { self.GetProc(stringEx("no_such_symbol_here")); }, &code)
                  .rfind("CDllLoader::GetProc - error get the address of specific proc\n"
                         "  proc name      = no_such_symbol_here\n  sys error desc = ",
                         0),
              0u);
    EXPECT_EQ(code, kDllSymbolMissing);
}

TEST(FileMapping, ViewsShareAndTheLastOneUnmaps)
{
    char pattern[] = "/tmp/karu-map-XXXXXX";
    const int fd = mkstemp(pattern);
    ASSERT_GE(fd, 0);
    const std::string path = pattern;
    std::string content(3 * 4096, 'a');
    content.replace(5000, 5, "hello");
    ASSERT_EQ(write(fd, content.data(), content.size()), ssize_t(content.size()));
    close(fd);

    CFileMapping file(stringEx(path.c_str()), O_RDWR);
    EXPECT_EQ(S(file.GetFileName()), path);

    // An offset inside a page starts the view at the page.
    int64_t offset = 5000;
    CFileMapping::CView view;
    file.MapView(view, offset, 5, PROT_READ | PROT_WRITE);
    EXPECT_EQ(offset, 4096);
    ASSERT_EQ(view.Size(), 5u + 904u);
    char* bytes = static_cast<char*>(view.Address());
    EXPECT_EQ(std::string(bytes + 904, 5), "hello");
    std::memcpy(bytes + 904, "HELLO", 5);
    view.Flush();
    EXPECT_EQ(ReadAll(path).substr(5000, 5), "HELLO");

    // A private copy is writable and never reaches the file.
    CSysFile readOnly(stringEx(path.c_str()), O_RDONLY);
    CFileMapping copyFile(readOnly);
    int64_t start = 0;
    CFileMapping::CView privateView;
    copyFile.MapView(privateView, start, 0, kMapPrivateCopy);
    EXPECT_EQ(privateView.Size(), content.size());
    static_cast<char*>(privateView.Address())[0] = 'Z';
    EXPECT_EQ(ReadAll(path)[0], 'a');

    void* address = view.Address();
    {
        CFileMapping::CView second = view;
        CFileMapping::CView third;
        third = second;
        view.Release();
        EXPECT_TRUE(Mapped(address, 4096));
    }
    EXPECT_FALSE(Mapped(address, 4096));
    unlink(path.c_str());
}

TEST(FileMapping, Failures)
{
    EXPECT_EQ(MessageOf<fmppExp>([] { CFileMapping(stringEx("/nonexistent/file"), O_RDONLY); })
                  .rfind("CFileMapping::CFileMapping - error open file mapping\n  file path = /nonexistent/file\n@ ", 0),
              0u);
    CFileMapping::CView view;
    int64_t offset = 0;
    int32_t code = 0;
    const std::string failed = MessageOf<fmppExp>([&] { SetupMapView(view, -1, offset, 4096, PROT_READ, nullptr); }, &code);
    EXPECT_EQ(code, EBADF);
    EXPECT_NE(failed.find("  error desc  = invalid descriptor\n"), std::string::npos) << failed;
    EXPECT_EQ(failed.rfind("SetupMapView - failed create file view\n  size        = 4096\n", 0), 0u);
    SetupMapView(view, 8192, PROT_READ | PROT_WRITE, nullptr);
    static_cast<char*>(view.Address())[8191] = 1;
    EXPECT_FALSE(view.Address() == nullptr);
}
