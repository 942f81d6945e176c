#include "DaemonLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

namespace zavctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class DaemonLogTest : public testing::Test {
 protected:
    DaemonLogTest() { std::filesystem::create_directories(folder); }
    ~DaemonLogTest() override { std::filesystem::remove_all(folder); }

    static void append(const std::string& path, const std::string& text) {
        std::ofstream(path, std::ios::app | std::ios::binary) << text;
    }
    static void replace(const std::string& path, const std::string& text) {
        std::ofstream(path, std::ios::trunc | std::ios::binary) << text;
    }
    static std::vector<std::string> linesOf(const DaemonLog& log) {
        std::vector<std::string> lines;
        log.read([&lines](std::string_view line) { lines.emplace_back(line); });
        return lines;
    }
    static std::string errorOf(const DaemonLog& log) {
        try {
            linesOf(log);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "";
    }

    const std::string folder = testing::TempDir() + "daemon-log";
    const std::string path = folder + "/log";
};

TEST_F(DaemonLogTest, ReadsWhatIsLoggedAfterTheConstruction) {
    replace(path, "old\n");
    const DaemonLog log(path);
    EXPECT_THAT(linesOf(log), IsEmpty());
    append(path, "a\n\nb\n");
    EXPECT_THAT(linesOf(log), ElementsAre("a", "", "b"));
    EXPECT_THAT(linesOf(log), ElementsAre("a", "", "b")) << "again";
    EXPECT_FALSE(log.mayLag());
}

TEST_F(DaemonLogTest, TheLastLineMayLackItsBreak) {
    replace(path, "an old line without a break");
    const DaemonLog log(path);
    append(path, "a\nb");
    EXPECT_THAT(linesOf(log), ElementsAre("a", "b"));
}

TEST_F(DaemonLogTest, FollowsARotation) {
    replace(path, "old\n");
    const DaemonLog log(path);
    append(path, "a\n");
    std::filesystem::rename(path, path + ".1");
    append(path + ".1", "b\n");
    replace(path, "c\n");
    EXPECT_THAT(linesOf(log), ElementsAre("a", "b", "c"));
}

TEST_F(DaemonLogTest, StartsAgainAfterATruncation) {
    replace(path, "an old line that is longer\n");
    const DaemonLog log(path);
    replace(path, "a\n");
    EXPECT_THAT(linesOf(log), ElementsAre("a"));
}

TEST_F(DaemonLogTest, AFileThatAppearsLaterIsReadFromItsBeginning) {
    const DaemonLog log(path);
    EXPECT_THAT(errorOf(log), HasSubstr(path + " cannot be read: No such file or directory"));
    replace(path, "a\n");
    EXPECT_THAT(linesOf(log), ElementsAre("a"));
}

TEST_F(DaemonLogTest, BytesAndLongLinesAreHarmless) {
    replace(path, "");
    const DaemonLog log(path);
    const std::string bytes("\0\xff\x1b[2J\r", 7);
    append(path, bytes + "\n" + std::string(1000000, 'x') + "\nend\n");
    const std::vector<std::string> lines = linesOf(log);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0], bytes);
    EXPECT_EQ(lines[1], std::string(64UL * 1024, 'x'));
    EXPECT_EQ(lines[2], "end");
}

TEST_F(DaemonLogTest, OfAHugeFileOnlyTheEndIsRead) {
    replace(path, "");
    std::filesystem::resize_file(path, std::uintmax_t{1} << 40U);  // with a hole: reading it would take minutes
    const DaemonLog log(path);
    append(path, "a\n");
    EXPECT_THAT(linesOf(log), ElementsAre("a"));
}

TEST_F(DaemonLogTest, WhatIsNotAFileIsRefused) {
    EXPECT_THAT(errorOf(DaemonLog(folder)), HasSubstr("not a regular file"));
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    EXPECT_THAT(errorOf(DaemonLog(path)), HasSubstr("not a regular file"));
}

// A journalctl that prints the entries behind the given cursor, or fails.
class JournalTest : public DaemonLogTest {
 protected:
    JournalTest() : before_(std::getenv("PATH")) {
        ::setenv("PATH", (folder + ":" + before_).c_str(), 1);
        setScript(
            "case \"$*\" in\n"
            "    *'-n 1'*) tail -n 1 " +
            path +
            " ;;\n"
            "    *--after-cursor=*) sed \"0,/__CURSOR\\\":\\\"${*##*--after-cursor=}\\\"/d\" " +
            path +
            " ;;\n"
            "    *) cat " +
            path +
            " ;;\n"
            "esac\n");
        replace(path, "");
    }
    ~JournalTest() override { ::setenv("PATH", before_.c_str(), 1); }

    void setScript(const std::string& body) const {
        const std::string script = folder + "/journalctl";
        replace(script, "#!/bin/sh\ncase \"$*\" in *'-u zavd.service -o json'*) ;; *) exit 64 ;; esac\n" + body);
        std::filesystem::permissions(script, std::filesystem::perms::owner_all);
    }
    void entry(const std::string& cursor, const std::string& message) const {
        append(path, R"({"__CURSOR":")" + cursor + R"(","MESSAGE":)" + message + "}\n");
    }

 private:
    const std::string before_;
};

TEST_F(JournalTest, ReadsTheEntriesAfterTheConstruction) {
    entry("s=1;i=1", "\"old\"");
    const DaemonLog log("");
    entry("s=1;i=2", "\"a\"");
    entry("s=1;i=3", "[98,255,10]");  // bytes that are not UTF-8
    entry("s=1;i=4", "null");
    EXPECT_THAT(linesOf(log), ElementsAre("a", "b\xff\n", ""));
    EXPECT_TRUE(log.mayLag());
}

TEST_F(JournalTest, AnEmptyJournalIsReadFromItsBeginning) {
    const DaemonLog log("");
    entry("s=1;i=2", "\"a\"");
    EXPECT_THAT(linesOf(log), ElementsAre("a"));
}

TEST_F(JournalTest, LinesThatAreNotEntriesAreSkipped) {
    append(path, "-- No entries --\n");
    const DaemonLog log("");
    append(path, "[1]\nnot JSON\n");
    entry("s=1;i=2", "[97,\"x\",98]");
    EXPECT_THAT(linesOf(log), ElementsAre("ab"));
    replace(path, "[1]\n");
    EXPECT_THAT(errorOf(DaemonLog("")), HasSubstr("the journal has no line of this pass"));
}

TEST_F(JournalTest, SaysHowToReadAJournalThatItMayNotRead) {
    EXPECT_THAT(errorOf(DaemonLog("")), HasSubstr("run zavctl as root or in the group systemd-journal, or name"));
    setScript("exit 1\n");
    EXPECT_THAT(errorOf(DaemonLog("")), HasSubstr("--log FILE"));
    std::filesystem::remove(folder + "/journalctl");
    ::setenv("PATH", folder.c_str(), 1);
    EXPECT_THAT(errorOf(DaemonLog("")), HasSubstr("--log FILE")) << "no journalctl";
}

}  // namespace
}  // namespace zavctl
