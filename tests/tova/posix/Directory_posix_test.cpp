#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <utility>

#include "../Support.h"

namespace fs = std::filesystem;
using testing::ElementsAre;
using tova_test::EntryOf;
using tova_test::Find;
using tova_test::List;
using tova_test::Names;
using tova_test::TempFolder;

namespace {

bool IsOther(const tova_dirent_t& entry) {
    return entry.type != TOVA_DIRENT_FOLDER && entry.type != TOVA_DIRENT_FILE;
}

size_t OpenDescriptors() {
    size_t count = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        (void)entry;
        ++count;
    }
    return count;
}

// Takes the superuser's rights away for a while: to him every folder is open.
class Unprivileged {
  public:
    Unprivileged() : dropped_(geteuid() == 0 && seteuid(kNobody) == 0) {}
    ~Unprivileged() {
        if (dropped_ && seteuid(0) != 0) std::abort();
    }
    Unprivileged(const Unprivileged&) = delete;
    Unprivileged& operator=(const Unprivileged&) = delete;
    bool Holds() const { return geteuid() != 0; }

  private:
    static constexpr uid_t kNobody = 65534;
    const bool dropped_;
};

void ExpectAccessDenied(const std::string& folder) {
    const Unprivileged unprivileged;
    if (!unprivileged.Holds()) GTEST_SKIP() << "the superuser cannot become somebody else here";
    EXPECT_EQ(TOVA_OpenDir(folder.c_str()), nullptr);
    EXPECT_EQ(TOVA_GetSystemLastError(), EACCES);
}

}  // namespace

TEST(DirectoryPosix, ALinkShowsWhatItPointsTo) {
    TempFolder folder;
    folder.Write("file", "x");
    folder.Folder("folder");
    fs::create_symlink("file", folder.Path("to file"));
    fs::create_directory_symlink("folder", folder.Path("to folder"));
    const auto entries = List(folder.Path());
    for (const auto& [link, target] :
         {std::make_pair("to file", "file"), std::make_pair("to folder", "folder")}) {
        const tova_dirent_t to = Find(entries, link);
        const tova_dirent_t from = Find(entries, target);
        EXPECT_EQ(to.type, from.type);
        EXPECT_EQ(to.stamp, from.stamp);
        EXPECT_EQ(to.volume, from.volume);
        EXPECT_EQ(to.file_id, from.file_id);
    }
}

TEST(DirectoryPosix, ARewriteShowsThroughALink) {
    TempFolder folder;
    TempFolder elsewhere;
    elsewhere.Write("file", "content 1");
    fs::create_symlink(elsewhere.Path("file"), folder.Path("link"));
    const uint64_t before = EntryOf(folder, "link").stamp;
    elsewhere.Write("file", "content 2");
    EXPECT_NE(EntryOf(folder, "link").stamp, before);
}

TEST(DirectoryPosix, ALinkThatLeadsNowhereIsListedAsNeitherFolderNorFile) {
    TempFolder folder;
    folder.Write("file", "x");
    fs::create_symlink("missing", folder.Path("dangling"));
    fs::create_symlink("loop", folder.Path("loop"));
    fs::create_symlink("file/below", folder.Path("through a file"));
    fs::create_symlink(std::string(300, 'x'), folder.Path("too long"));
    const auto entries = List(folder.Path());
    EXPECT_THAT(Names(entries),
                ElementsAre(".", "..", "dangling", "file", "loop", "through a file", "too long"));
    for (const char* name : {"dangling", "loop", "through a file", "too long"}) {
        EXPECT_TRUE(IsOther(Find(entries, name))) << name;
    }
}

TEST(DirectoryPosix, AFifoAndALinkToADeviceAreNeitherFolderNorFile) {
    TempFolder folder;
    ASSERT_EQ(mkfifo(folder.Path("fifo").c_str(), 0600), 0);
    fs::create_symlink("/dev/null", folder.Path("device"));
    const auto entries = List(folder.Path());
    EXPECT_TRUE(IsOther(Find(entries, "fifo")));
    EXPECT_TRUE(IsOther(Find(entries, "device")));
}

TEST(DirectoryPosix, AFifoIsNotOpenedAsAFolder) {
    TempFolder folder;
    ASSERT_EQ(mkfifo(folder.Path("fifo").c_str(), 0600), 0);
    EXPECT_EQ(TOVA_OpenDir(folder.Path("fifo").c_str()), nullptr);
    EXPECT_EQ(TOVA_GetSystemLastError(), ENOTDIR);
}

TEST(DirectoryPosix, NamesAreListedByteForByte) {
    TempFolder folder;
    for (const char* name : {"a\\b", "\xFF\xFE", "a\nb", " "}) {
        ASSERT_EQ(mkdir((folder.Path() + "/" + name).c_str(), 0700), 0);
    }
    EXPECT_THAT(Names(List(folder.Path())),
                ElementsAre(".", "..", " ", "a\nb", "a\\b", "\xFF\xFE"));
}

TEST(DirectoryPosix, NamesThatDifferInTheirCaseAloneAreTwo) {
    TempFolder folder;
    for (const char* name : {"b", "B", "ab", "aB"}) folder.Write(name, "");
    EXPECT_THAT(Names(List(folder.Path())), ElementsAre(".", "..", "B", "aB", "ab", "b"));
}

TEST(DirectoryPosix, IdentityIsThatOfTheFileSystem) {
    TempFolder folder;
    struct stat status {};
    ASSERT_EQ(stat(folder.Write("file", "x").c_str(), &status), 0);
    const tova_dirent_t entry = EntryOf(folder, "file");
    EXPECT_EQ(entry.volume, status.st_dev);
    EXPECT_EQ(entry.file_id, status.st_ino);
}

TEST(DirectoryPosix, ARestoredModificationTimeIsNoDisguise) {
    TempFolder folder;
    const std::string path = folder.Write("file", "content 1");
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    const uint64_t before = EntryOf(folder, "file").stamp;
    folder.Write("file", "content 2");
    const timespec times[2] = {status.st_atim, status.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    EXPECT_NE(EntryOf(folder, "file").stamp, before);
}

// A time far ahead is no reason to wait for it.
TEST(DirectoryPosix, AModificationTimeFarAheadIsListed) {
    TempFolder folder;
    const std::string path = folder.Write("file", "content");
    const timespec times[2] = {{0, UTIME_OMIT}, {15000000000, 5}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    EXPECT_EQ(EntryOf(folder, "file").type, uint32_t{TOVA_DIRENT_FILE});
}

TEST(DirectoryPosix, NamesTheErrorOfAFailedOpen) {
    TempFolder folder;
    EXPECT_EQ(TOVA_OpenDir(folder.Path("missing").c_str()), nullptr);
    EXPECT_EQ(TOVA_GetSystemLastError(), ENOENT);
    EXPECT_EQ(TOVA_OpenDir(folder.Write("file", "").c_str()), nullptr);
    EXPECT_EQ(TOVA_GetSystemLastError(), ENOTDIR);
    fs::create_symlink("loop", folder.Path("loop"));
    EXPECT_EQ(TOVA_OpenDir(folder.Path("loop").c_str()), nullptr);
    EXPECT_EQ(TOVA_GetSystemLastError(), ELOOP);
}

TEST(DirectoryPosix, AnUnreadableFolderCannotBeOpened) {
    TempFolder folder;
    const std::string closed = folder.Folder("closed");
    ASSERT_EQ(chmod(closed.c_str(), 0), 0);
    ExpectAccessDenied(closed);
    ASSERT_EQ(chmod(closed.c_str(), 0700), 0);
}

TEST(DirectoryPosix, AFolderThatCannotBeSearchedIsAFailedOpenAndNoEmptyListing) {
    TempFolder folder;
    const std::string closed = folder.Folder("closed");
    folder.Write("closed/file", "x");
    ASSERT_EQ(chmod(closed.c_str(), 0444), 0);
    ExpectAccessDenied(closed);
    ASSERT_EQ(chmod(closed.c_str(), 0700), 0);
}

TEST(DirectoryPosix, AnOpenListingHoldsNoDescriptor) {
    TempFolder folder;
    folder.Write("file", "x");
    const size_t before = OpenDescriptors();
    void* const dir = TOVA_OpenDir(folder.Path().c_str());
    ASSERT_NE(dir, nullptr);
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(TOVA_CloseDir(dir), 0);
}
