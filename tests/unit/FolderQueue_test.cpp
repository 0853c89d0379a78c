#include "vessa2/FolderQueue.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "common/NormalizePath.h"
#include "support/Allocation.h"

namespace {

using vessa_test::AllocationFailure;

std::string PathOf(const FolderQueue& queue, size_t at) {
    std::string path = "something else";
    queue.PathOf(at, path);
    return path;
}

TEST(FolderQueue, BeginsWithTheRoot) {
    FolderQueue queue;
    queue.Begin("/a//b/./");
    EXPECT_EQ(queue.size(), 1u);
    EXPECT_EQ(PathOf(queue, 0), "/a/b");
    queue.Add(0, "c", 1, 2);
    queue.Begin("x");
    EXPECT_EQ(queue.size(), 1u);
    EXPECT_EQ(PathOf(queue, 0), "x");
}

// The plain way to each path: the parent's, "/" and the name, normalised.
TEST(FolderQueue, GivesThePathsThatJoiningWouldGive) {
    std::mt19937 random(5);
    static const std::string kNames[] = {"a", "bc", ".x", "...", " ", "d e"};
    for (const char* const root : {"/a/b", "/", "C:/", "C:", ".", "..", "./x", "x/..",
                                   "\\\\s\\d\\e", "\\\\s", "a", "//x//"}) {
        FolderQueue queue;
        queue.Begin(root);
        std::vector<std::string> paths = {NormalizePath(root)};
        for (int i = 0; i < 200; ++i) {
            const size_t parent = random() % paths.size();
            const std::string& name = kNames[random() % (sizeof kNames / sizeof *kNames)];
            queue.Add(parent, name.c_str(), 0, 0);
            paths.push_back(NormalizePath(paths[parent] + "/" + name));
        }
        for (size_t at = 0; at < paths.size(); ++at) {
            EXPECT_EQ(PathOf(queue, at), paths[at]) << root;
            for (const char* const file : {"tarnet.xml", "a\\b", ".", "x/y"})
                EXPECT_EQ(queue.PathOfFile(at, paths[at], file),
                          NormalizePath(paths[at] + "/" + file))
                    << root;
        }
    }
}

TEST(FolderQueue, KnowsAFoldersAncestorsByTheirIdentity) {
    FolderQueue queue;
    queue.Begin("/r");
    queue.SetIdentity(0, 1, 10);
    queue.Add(0, "a", 1, 11);
    queue.Add(0, "b", 1, 12);
    queue.Add(1, "c", 2, 13);
    for (const uint64_t id : {uint64_t{10}, uint64_t{11}})
        EXPECT_TRUE(queue.IsOwnAncestor(3, 1, id));
    EXPECT_TRUE(queue.IsOwnAncestor(3, 2, 13));
    EXPECT_FALSE(queue.IsOwnAncestor(3, 1, 12));
    EXPECT_FALSE(queue.IsOwnAncestor(3, 1, 13));
    EXPECT_FALSE(queue.IsOwnAncestor(3, 2, 11));
}

TEST(FolderQueue, NeedsNoMoreMemoryForTheSameFoldersAgain) {
    FolderQueue queue;
    std::string path;
    const auto scan = [&] {
        queue.Begin("/a/folder/of/more/than/fifteen/bytes");
        for (int i = 0; i < 1000; ++i) queue.Add(static_cast<size_t>(i), "a folder's name", 1, 2);
        for (size_t at = 0; at < queue.size(); ++at) queue.PathOf(at, path);
    };
    const auto count = [&] {
        AllocationFailure none(0);
        scan();
        return none.Count();
    };
    scan();
    const long again = count();
    // The root's path alone, however many folders there are.
    EXPECT_LE(again, 8);
    queue.Free();
    EXPECT_GT(count(), again);
}

}  // namespace
