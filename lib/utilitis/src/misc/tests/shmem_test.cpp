// Shared-memory objects: names, sizes, who removes what, one mapping seen by
// two processes, the lines of a failure, and objects made whole by racers.
#include <karu/misc/shmem.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <atomic>
#include <cstring>
#include <vector>

#include "file/tests/text_helpers.h"
#include "sync/tests/forktest.h"

using namespace Karu;
using namespace KaruTest;

namespace {

bool NameExists(const std::string& slashed)
{
    const int fd = shm_open(slashed.c_str(), O_RDONLY, 0);
    if (fd < 0)
        return false;
    close(fd);
    return true;
}

TEST(SharedMemory, NamesSizesAndRemoval)
{
    struct Row {
        const char* why;
        bool slash;
        uint64_t size;
    } rows[] = {
        {"a bare name gets its slash", false, 64},
        {"a slashed name stays as it is", true, 4096},
        {"size 0 is not truncated", false, 0},
    };
    for (const Row& row : rows) {
        const std::string slashed = UniqueName("smo");
        const std::string given = row.slash ? slashed : slashed.substr(1);
        SMO_HANDLE handle;
        EXPECT_TRUE(CreateSharedMemoryObject(handle, given.c_str(), kAccessReadWrite, row.size)) << row.why;
        EXPECT_EQ(handle.name.c_str(), slashed) << row.why;
        struct stat info {};
        fstat(handle.fd, &info);
        EXPECT_EQ(uint64_t(info.st_size), row.size) << row.why;

        // A second create opens silently and keeps the size.
        SMO_HANDLE again;
        EXPECT_FALSE(CreateSharedMemoryObject(again, given.c_str(), kAccessReadWrite, row.size + 100)) << row.why;
        EXPECT_EQ(again.size, row.size) << row.why;
        close(again.fd);

        CloseAndRemoveSharedMemoryObject(handle, given.c_str());
        EXPECT_FALSE(NameExists(slashed)) << row.why;
    }
}

TEST(SharedMemory, OneMappingAcrossProcessesAndTheCreatorRemoves)
{
    const std::string name = UniqueName("view");
    SMO_HANDLE creator;
    ASSERT_TRUE(SetupMapView(creator, name.c_str(), 128, kAccessReadWrite));
    std::strcpy(static_cast<char*>(creator.address), "from parent");

    const ChildEnd end = RunChild([&] {
        SMO_HANDLE opener;
        OpenMapView(opener, name.c_str(), kAccessReadWrite);
        const bool seen = std::strcmp(static_cast<char*>(opener.address), "from parent") == 0;
        std::strcpy(static_cast<char*>(opener.address), "from child");
        ReleaseMapView(opener);  // an opener leaves the name
        return seen ? 0 : 1;
    });
    EXPECT_EQ(end.status, 0);
    EXPECT_TRUE(NameExists(name));
    EXPECT_STREQ(static_cast<char*>(creator.address), "from child");
    ReleaseMapView(creator);
    EXPECT_FALSE(NameExists(name));

    SMO_HANDLE missing;
    EXPECT_EQ(MessageOf<shmemExp>([&] { OpenMapView(missing, name.c_str(), kAccessReadWrite); }),
              "OpenSharedMemoryObject - failed create shared memory object\n  smo name    = " + name +
                  "\n  flag        = 3\n  access mode = 2\n  error code  = 2\n"
                  "  error desc  = the shared memory object does not exist\n");
}

TEST(SharedMemory, AMappingFailureNamesFlagAndAccessMode)
{
    const std::string name = UniqueName("empty");
    SMO_HANDLE empty;
    ASSERT_TRUE(CreateSharedMemoryObject(empty, name.c_str(), kAccessReadWrite, 0));
    SMO_HANDLE opener;
    int32_t code = 0;
    EXPECT_EQ(MessageOf<shmemExp>([&] { OpenMapView(opener, name.c_str(), kAccessReadWrite); }, &code),
              "SetupMapView - failed create memory view\n  smo name    = " + name +
                  "\n  flag        = 3\n  access mode = 2\n  size        = 0\n  error code  = 22\n"
                  "  error desc  = invalid size, address, or flags argument\n");
    EXPECT_EQ(code, 3);
    CloseAndRemoveSharedMemoryObject(empty, name.c_str());
}

// Processes racing to make one name: every racer that found the name free
// sets up a draft of its own, exactly one draft is published, the others are
// undone, and every racer maps the published one, already set up.
TEST(SharedMemoryConcurrency, RacersPublishOneObjectWhole)
{
    constexpr int kRounds = kUnderThreadSanitizer ? 20 : 100, kRacers = 4;
    struct Board {
        std::atomic<int> go{0}, setUps{0}, undos{0}, creators{0}, whole{0}, mapped{0};
    };
    Board* board = MapShared<Board>();
    ASSERT_NE(board, nullptr);
    for (int round = 0; round < kRounds; ++round) {
        board->~Board();
        new (board) Board();
        const std::string name = UniqueName("publish");
        std::vector<pid_t> racers;
        for (int i = 0; i < kRacers; ++i)
            racers.push_back(StartChild([&, i] {
                AwaitCondition([&] { return board->go.load() != 0; });
                SMO_HANDLE handle;
                const bool created = SetupInitialisedMapView(
                    handle, name.c_str(), 64, kAccessReadWrite,
                    [&, i](void* at) {
                        ++board->setUps;
                        std::memcpy(at, "made by ", 8);
                        static_cast<char*>(at)[8] = char('0' + i);
                    },
                    [&](void*) { ++board->undos; });
                board->creators += created ? 1 : 0;
                board->whole += std::memcmp(handle.address, "made by ", 8) == 0 ? 1 : 0;
                ++board->mapped;
                if (created)  // the creator removes the name: it goes last
                    AwaitCondition([&] { return board->mapped.load() == kRacers; }, 10000);
                ReleaseMapView(handle);
                return 0;
            }));
        board->go = 1;
        for (pid_t racer : racers)
            ASSERT_EQ(WaitChild(racer, 10000).status, 0) << "round " << round;
        ASSERT_EQ(board->creators.load(), 1) << "round " << round;
        ASSERT_EQ(board->setUps.load() - board->undos.load(), 1) << "round " << round;
        ASSERT_EQ(board->whole.load(), kRacers) << "round " << round << ": a racer saw a half-made object";
        ASSERT_FALSE(NameExists(name)) << "round " << round;
    }
    FreeShared(board);
}

}  // namespace
