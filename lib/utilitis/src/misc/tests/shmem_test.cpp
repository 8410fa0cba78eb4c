// Shared-memory objects: names, sizes, who removes what, and one mapping
// seen by two processes.
#include <karu/misc/shmem.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cstring>

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
    try {
        OpenMapView(missing, name.c_str(), kAccessReadWrite);
        FAIL() << "opened a removed name";
    } catch (const shmemExp& e) {
        EXPECT_EQ(std::string(e.message.c_str()),
                  "OpenSharedMemoryObject - failed create shared memory object\n  smo name    = " + name +
                      "\n  flag        = 3\n  access mode = 2\n  error code  = 2\n"
                      "  error desc  = the shared memory object does not exist\n");
    }
}

}  // namespace
