#include "platform/transport/UnitDirectory_p.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Transport {
namespace {

class UnitDirectoryTest : public testing::Test {
protected:
    std::unique_ptr<UnitDirectory> actor(unsigned lastName = UnitDirectory::kLastName) {
        auto directory = std::make_unique<UnitDirectory>(temp_.path() + "/unit", lastName);
        std::string problem;
        EXPECT_TRUE(directory->open(problem)) << problem;
        return directory;
    }
    bool exists(const std::string &name) { return ::access((temp_.path() + "/unit/" + name).c_str(), F_OK) == 0; }

    Testing::TempDir temp_;
};

TEST_F(UnitDirectoryTest, IsMadeForItsOwnerOnly) {
    actor();
    struct stat status {};
    ASSERT_EQ(0, ::stat((temp_.path() + "/unit").c_str(), &status));
    EXPECT_EQ(0700U, status.st_mode & 0777U);
}

TEST_F(UnitDirectoryTest, ADirectoryOpenToOthersIsRefused) {
    actor();
    ASSERT_EQ(0, ::chmod((temp_.path() + "/unit").c_str(), 0755));
    UnitDirectory directory(temp_.path() + "/unit");
    std::string problem;
    EXPECT_FALSE(directory.open(problem));
    EXPECT_NE(std::string::npos, problem.find("open to others (mode 755)")) << problem;
    EXPECT_EQ(0U, directory.claimName());
}

TEST_F(UnitDirectoryTest, ADirectoryOfSomebodyElseIsRefused) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can make a directory of another owner";
    }
    actor();
    ASSERT_EQ(0, ::chown((temp_.path() + "/unit").c_str(), 65534, 65534));
    UnitDirectory directory(temp_.path() + "/unit");
    std::string problem;
    EXPECT_FALSE(directory.open(problem));
    EXPECT_NE(std::string::npos, problem.find("belongs to user 65534")) << problem;
}

TEST_F(UnitDirectoryTest, ASymbolicLinkAFileAndAMissingParentAreRefused) {
    actor();
    ASSERT_EQ(0, ::symlink((temp_.path() + "/unit").c_str(), (temp_.path() + "/link").c_str()));
    std::ofstream(temp_.path() + "/file") << "x";
    for (const char *path : {"/link", "/file", "/missing/unit"}) {
        UnitDirectory directory(temp_.path() + path);
        std::string problem;
        EXPECT_FALSE(directory.open(problem)) << path;
        EXPECT_NE(std::string::npos, problem.find(path)) << problem;
    }
}

TEST_F(UnitDirectoryTest, NamesOfLiveActorsAreDifferentAndFreeOnesComeBackLast) {
    auto one = actor(10);
    auto two = actor(10);
    std::set<unsigned> names;
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(names.insert(one->claimName()).second);
        EXPECT_TRUE(names.insert(two->claimName()).second);
    }
    EXPECT_EQ(10U, names.size());
    EXPECT_EQ(1U, *names.begin());
    EXPECT_EQ(10U, *names.rbegin());
    EXPECT_EQ(0U, one->claimName()) << "all are taken";
    EXPECT_EQ(0U, two->claimName());
    one->releaseName(*names.begin());
    EXPECT_EQ(*names.begin(), two->claimName());
    two.reset(); // as if the actor had died: its names are free, those of the other are not
    std::set<unsigned> again;
    for (unsigned name = one->claimName(); name != 0; name = one->claimName()) {
        EXPECT_TRUE(again.insert(name).second);
    }
    EXPECT_EQ(6U, again.size());
}

TEST_F(UnitDirectoryTest, ARestartedActorGetsAnotherNameEachTime) {
    std::set<unsigned> names;
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(names.insert(actor(101)->claimName()).second) << "after " << i;
    }
    EXPECT_EQ(100U, names.size());
}

TEST_F(UnitDirectoryTest, ANameIsFreeWhenItsProcessWasKilled) {
    auto survivor = actor(2);
    int ready[2];
    ASSERT_EQ(0, ::pipe(ready));
    const pid_t child = ::fork();
    if (child == 0) {
        // A separate open file: the one of the parent is not touched.
        UnitDirectory mine(temp_.path() + "/unit", 2);
        std::string problem;
        char name = mine.open(problem) ? static_cast<char>(mine.claimName()) : '\0';
        static_cast<void>(!::write(ready[1], &name, 1));
        ::pause();
    }
    char childsName = 0;
    ASSERT_EQ(1, ::read(ready[0], &childsName, 1));
    ASSERT_NE(0, childsName);
    EXPECT_NE(0U, survivor->claimName());
    EXPECT_EQ(0U, survivor->claimName());
    ASSERT_EQ(0, ::kill(child, SIGKILL));
    ASSERT_EQ(child, ::waitpid(child, nullptr, 0));
    EXPECT_EQ(static_cast<unsigned>(childsName), survivor->claimName());
    ::close(ready[0]);
    ::close(ready[1]);
}

TEST_F(UnitDirectoryTest, ASocketOfALiveActorIsFoundAndAStaleOneRemoved) {
    auto one = actor();
    auto two = actor();
    const unsigned name = one->claimName();
    std::string problem;
    Descriptor listener = one->listen(name, problem);
    ASSERT_TRUE(listener) << problem;
    EXPECT_EQ(std::vector<unsigned>{name}, two->sockets());
    Descriptor connection;
    EXPECT_EQ(UnitDirectory::Reach::connected, two->connect(name, connection));
    EXPECT_TRUE(connection);
    two->removeIfStale(name);
    EXPECT_EQ(1U, two->sockets().size()) << "its owner lives";
    listener.reset();
    one.reset();
    EXPECT_EQ(UnitDirectory::Reach::stale, two->connect(name, connection));
    two->removeIfStale(name);
    EXPECT_TRUE(two->sockets().empty());
}

TEST_F(UnitDirectoryTest, ALeftoverOfAHalfMadeSocketDoesNotDisturb) {
    auto one = actor(1);
    std::ofstream(temp_.path() + "/unit/t.0001") << "left by a killed actor";
    std::ofstream(temp_.path() + "/unit/a.0001") << "and so is this";
    std::ofstream(temp_.path() + "/unit/a.zzzz") << "whatever";
    EXPECT_EQ(std::vector<unsigned>{1}, one->sockets());
    std::string problem;
    Descriptor listener = one->listen(one->claimName(), problem);
    EXPECT_TRUE(listener) << problem;
    EXPECT_FALSE(exists("t.0001"));
    auto two = actor();
    Descriptor connection;
    EXPECT_EQ(UnitDirectory::Reach::connected, two->connect(1, connection));
}

TEST_F(UnitDirectoryTest, AVeryLongPathWorks) {
    const std::string path = temp_.path() + "/" + std::string(150, 'u');
    UnitDirectory one(path);
    UnitDirectory two(path);
    std::string problem;
    ASSERT_TRUE(one.open(problem)) << problem;
    ASSERT_TRUE(two.open(problem)) << problem;
    Descriptor listener = one.listen(one.claimName(), problem);
    ASSERT_TRUE(listener) << problem;
    Descriptor connection;
    EXPECT_EQ(UnitDirectory::Reach::connected, two.connect(1, connection));
}

} // namespace
} // namespace Transport
