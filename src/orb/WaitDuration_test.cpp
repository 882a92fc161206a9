#include "orb/WaitDuration_p.h"

#include "orb/REFLECT_orb.h"
#include "platform/Environment_p.h"
#include "platform/transport/testing/FakeLink.h"
#include "support/LogCapture.h"
#include "support/Scenario.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;

class WaitDurationTest : public testing::Test {
protected:
    void write(const std::string &content) {
        fs::remove(file);
        std::ofstream(file) << content;
        ::chmod(file.c_str(), 0600);
    }
    std::size_t replaced() const {
        return log.count(4, "ORB Wait duration should be >= 10 andmultiple of 5. Taking default value of 10",
                         "REFLECT_orb");
    }
    static unsigned modeOf(const std::string &path) {
        struct stat status {};
        ::stat(path.c_str(), &status);
        return status.st_mode & 07777U;
    }

    Testing::TempDir directory;
    Testing::LogCapture log;
    const std::string file = directory.path() + "/orbWaitDuration";
};

TEST_F(WaitDurationTest, IsTheNumberInTheFirstLine) {
    const std::pair<const char *, unsigned> contents[] = {
        {"10", 10},   {"15", 15},  {"15\n20\n", 15}, {"25 min\n", 25},
        {"  20", 20}, {"+30", 30}, {"600\n", 600},   {"2147483645", 2147483645U}};
    for (const auto &[content, minutes] : contents) {
        write(content);
        EXPECT_EQ(minutes, readWaitDuration(file)) << content;
        EXPECT_EQ(0664U, modeOf(file)) << content;
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(WaitDurationTest, IsReplacedIfItIsTooShortOrNoMultipleOfFive) {
    const std::string contents[] = {"12",
                                    "5",
                                    "",
                                    "0",
                                    "-1",
                                    "-10",
                                    "-6",
                                    "-4294967286",
                                    "ten",
                                    "\n15\n",
                                    "2147483647",
                                    "4294967311",
                                    "99999999999999999999999990",
                                    std::string(500, '1'),
                                    std::string(70, ' ') + "15"};
    std::size_t lines = 0;
    for (const std::string &content : contents) {
        write(content);
        EXPECT_EQ(10U, readWaitDuration(file)) << content;
        EXPECT_EQ(++lines, replaced()) << content;
        EXPECT_EQ(0664U, modeOf(file)) << content;
    }
    EXPECT_EQ(lines, log.lines().size());
}

TEST_F(WaitDurationTest, WithoutFileIsTenMinutesWithoutReport) {
    EXPECT_EQ(10U, readWaitDuration(file));
    EXPECT_EQ(10U, readWaitDuration(directory.path() + "/no/such/directory"));
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(fs::exists(file));
}

TEST_F(WaitDurationTest, APipeOrADirectoryIsNotRead) {
    ASSERT_EQ(0, ::mkfifo(file.c_str(), 0600)); // nobody writes to it
    EXPECT_EQ(10U, readWaitDuration(file));
    EXPECT_EQ(1U, replaced());
    const std::string folder = directory.path() + "/folder";
    ASSERT_TRUE(fs::create_directory(folder));
    EXPECT_EQ(10U, readWaitDuration(folder));
    EXPECT_EQ(2U, replaced());
    EXPECT_EQ(0664U, modeOf(folder));
    ::chmod(folder.c_str(), 0700);
}

TEST_F(WaitDurationTest, TheModeIsChangedByTheCommandWhetherThereIsAFileOrNot) {
    const std::string programs = directory.path() + "/bin";
    const std::string calls = directory.path() + "/calls";
    fs::create_directory(programs);
    std::ofstream(programs + "/chmod") << "#!/bin/sh\necho \"$# $@\" >> " << calls << "\nexit 3\n";
    ::chmod((programs + "/chmod").c_str(), 0700);
    ASSERT_EQ(0, ::setenv("PATH", (programs + ":/bin:/usr/bin").c_str(), 1));

    EXPECT_EQ(10U, readWaitDuration(file));
    write("15");
    EXPECT_EQ(15U, readWaitDuration(file));
    write("7");
    EXPECT_EQ(10U, readWaitDuration(file));

    std::ostringstream made;
    made << std::ifstream(calls).rdbuf();
    const std::string call = "2 664 " + file + "\n";
    EXPECT_EQ(call + call + call, made.str());
}

SCENARIO(brokerReadsItsWaitDuration) {
    Transport::FakeLink::install();
    const std::string path = waitDurationPath();
    SCENARIO_CHECK(path == Platform::environment().rootPrefix + "/ffs/run/logs/orbWaitDuration");
    TreflectORB *const orb = TreflectORB::getInstance(1);
    SCENARIO_CHECK(orb->waitDuration() == 35);
    std::ofstream(path) << "40";
    SCENARIO_CHECK(TreflectORB::getInstance(1)->waitDuration() == 35);
    SCENARIO_CHECK(TreflectORB::getInstance(2)->waitDuration() == 40);
}

TEST_F(WaitDurationTest, IsReadOnceByEachBrokerBelowTheConfiguredRoot) {
    fs::create_directories(directory.path() + "/ffs/run/logs");
    std::ofstream(directory.path() + "/ffs/run/logs/orbWaitDuration") << "35";
    const Testing::ProcessResult result =
        Testing::runScenario("brokerReadsItsWaitDuration", {"REFLECTORB_ROOT=" + directory.path()});
    EXPECT_EQ(0, result.exitStatus) << result.output;
    EXPECT_EQ(0664U, modeOf(directory.path() + "/ffs/run/logs/orbWaitDuration"));
}

} // namespace
