#include "pack/Pack.h"

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "Workspace.h"
#include "pack/Output.h"

namespace pack {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class Packing : public Workspace {
 protected:
    Packing() {
        options.from = root + "/in";
        options.to = root + "/out";
        options.keyFile = root + "/key";
        write("in/02/provisioning.xml", plainXml);
        write("in/images/a.img", std::string(300000, 'i'));
        write("in/contacts.xml", "<contacts/>");
    }

    Result run() const { return pack(options); }

    // Expects that packing is refused, with this text for this file, and that nothing has changed.
    void refused(const std::string& file, const std::string& text, bool canBeForced = false) {
        const auto before = tree("out");
        const Result result = run();
        EXPECT_TRUE(result.refused) << text;
        ASSERT_THAT(result.findings, SizeIs(1)) << text;
        EXPECT_EQ(result.findings[0].file, file);
        EXPECT_THAT(result.findings[0].text, HasSubstr(text));
        EXPECT_EQ(tree("out"), before);
        options.force = true;
        EXPECT_EQ(run().refused, !canBeForced) << text;
        options.force = false;
    }

    struct stat statusOf(const std::string& name) const {
        struct stat status {};
        EXPECT_EQ(::lstat((root + "/" + name).c_str(), &status), 0) << name;
        return status;
    }

    Options options;
};

TEST_F(Packing, EncryptsProvisioningFilesAndCopiesTheOthers) {
    const Result result = run();
    EXPECT_THAT(result.encrypted, ElementsAre("02/provisioning.xml"));
    EXPECT_THAT(result.copied, ElementsAre("contacts.xml", "images/a.img"));
    EXPECT_EQ(decrypted("out/02/provisioning.xml"), plainXml);
    EXPECT_EQ(read("out/contacts.xml"), "<contacts/>");
    EXPECT_EQ(read("out/images/a.img"), std::string(300000, 'i'));
    EXPECT_THAT(tree("out"), SizeIs(5));  // two of them folders
}

TEST_F(Packing, TwiceWritesNothing) {
    run();
    const auto before = tree("out");
    const struct stat folder = statusOf("out");
    const struct stat file = statusOf("out/02/provisioning.xml");
    const Result result = run();
    EXPECT_THAT(result.encrypted, IsEmpty());
    EXPECT_THAT(result.copied, IsEmpty());
    EXPECT_EQ(result.unchanged, 3U);
    EXPECT_EQ(tree("out"), before);
    EXPECT_EQ(statusOf("out/02/provisioning.xml").st_ino, file.st_ino);
    EXPECT_EQ(statusOf("out").st_mtim.tv_nsec, folder.st_mtim.tv_nsec);
}

TEST_F(Packing, WritesOnlyWhatHasChanged) {
    run();
    write("in/02/provisioning.xml", "<provisioning/>");
    EXPECT_THAT(run().encrypted, ElementsAre("02/provisioning.xml"));
    EXPECT_EQ(decrypted("out/02/provisioning.xml"), "<provisioning/>");
    write("in/contacts.xml", "<Contacts/>");
    const Result result = run();
    EXPECT_THAT(result.encrypted, IsEmpty());
    EXPECT_THAT(result.copied, ElementsAre("contacts.xml"));
    write("key", "another key\n");
    EXPECT_THAT(run().encrypted, ElementsAre("02/provisioning.xml"));
}

TEST_F(Packing, ADryRunWritesNothing) {
    options.dryRun = true;
    EXPECT_THAT(run().encrypted, ElementsAre("02/provisioning.xml"));
    EXPECT_FALSE(exists("out"));
}

TEST_F(Packing, VanishedFilesAreNamedAndRemovedOnlyOnRequest) {
    run();
    std::filesystem::remove_all(root + "/in/images");
    EXPECT_THAT(run().vanished, ElementsAre("images/a.img"));
    EXPECT_TRUE(exists("out/images/a.img"));
    options.removeVanished = true;
    options.dryRun = true;
    EXPECT_THAT(run().removed, ElementsAre("images/a.img"));
    EXPECT_TRUE(exists("out/images/a.img"));
    options.dryRun = false;
    EXPECT_THAT(run().removed, ElementsAre("images/a.img"));
    EXPECT_FALSE(exists("out/images"));
    EXPECT_TRUE(exists("out/contacts.xml"));
}

TEST_F(Packing, AnEmptyFolderIsAnErrorAndRemovesNothing) {
    run();
    std::filesystem::remove_all(options.from);
    std::filesystem::create_directory(options.from);
    options.removeVanished = true;
    EXPECT_THAT(errorOf([this] { run(); }), HasSubstr("holds no files"));
    EXPECT_TRUE(exists("out/contacts.xml"));
}

TEST_F(Packing, HiddenEntriesAreNeitherPublishedNorRemoved) {
    write("in/.git/config", "x");
    write("out/.well-known/x", "x");
    options.removeVanished = true;
    const Result result = run();
    EXPECT_THAT(result.hidden, ElementsAre(".git"));
    EXPECT_FALSE(exists("out/.git"));
    EXPECT_TRUE(exists("out/.well-known/x"));
}

TEST_F(Packing, OneWrongFileKeepsAllFromBeingPublished) {
    write("in/a.xml", "<Settings/>");
    refused("a.xml", "the phone wants \"settings\"", true);
    EXPECT_EQ(decrypted("out/a.xml"), "<Settings/>");  // by force, but not in plain
}

TEST_F(Packing, FilesThatCannotBePublishedAreNamed) {
    const std::string in = root + "/in/";
    std::filesystem::create_symlink("/etc/passwd", in + "x");
    refused("x", "leads out of the folder");
    std::filesystem::remove(in + "x");
    std::filesystem::create_symlink("nowhere", in + "x");
    refused("x", "leads nowhere");
    std::filesystem::remove(in + "x");
    std::filesystem::create_symlink("images", in + "x");
    refused("x", "not a file");
    std::filesystem::remove(in + "x");
    ASSERT_EQ(::mkfifo((in + "x").c_str(), 0600), 0);
    refused("x", "neither a file nor a folder");
    std::filesystem::remove(in + "x");
    write("in/a\nb", "x");
    refused("a\nb", "control characters");
    std::filesystem::remove(in + "a\nb");
    write("in/\xff", "x");
    refused("\xff", "not UTF-8");
}

TEST_F(Packing, ALinkToAFileInsideIsPublishedAsThatFile) {
    std::filesystem::create_symlink("../02/provisioning.xml", root + "/in/images/03.xml");
    run();
    EXPECT_TRUE(S_ISREG(statusOf("out/images/03.xml").st_mode));
    EXPECT_EQ(decrypted("out/images/03.xml"), plainXml);
}

TEST_F(Packing, EncryptedFilesAreCopiedIfTheKeyFits) {
    write("in/old.xml", encrypt(plainXml, passPhrase));
    EXPECT_THAT(run().copied, testing::Contains("old.xml"));
    EXPECT_EQ(read("out/old.xml"), read("in/old.xml"));
    std::string damaged = read("in/old.xml");
    damaged.resize(damaged.size() - 16);
    write("in/old.xml", damaged);
    write("in/old.xml", read("in/old.xml").substr(0, 40));
    refused("old.xml", "already encrypted", true);
}

TEST_F(Packing, AFileThatPhonesRefuseForItsSizeIsAnError) {
    const std::size_t limit = 16UL * 1024 * 1024;
    const std::string begin = "<nvm><!--";
    const std::string end = "--></nvm>";
    const auto ofSize = [&](std::size_t size) {
        return begin + std::string(size - begin.size() - end.size(), ' ') + end;
    };
    write("in/big.xml", ofSize(limit - 17));
    EXPECT_FALSE(run().refused);
    EXPECT_EQ(std::filesystem::file_size(root + "/out/big.xml"), limit);
    write("in/big.xml", ofSize(limit - 16));
    const Result result = run();
    ASSERT_TRUE(result.refused);
    EXPECT_THAT(result.findings[0].text, HasSubstr("16 MiB"));
}

TEST_F(Packing, TheCheckSeesEachProvisioningFileAndItsErrorsKeepAllBack) {
    options.check = [](const std::string& name, const std::string& bytes) {
        EXPECT_EQ(bytes, plainXml);
        return std::vector<Finding>{{name, 2, true, "no such setting"}};
    };
    refused("02/provisioning.xml", "no such setting", true);
}

TEST_F(Packing, WarningsOfTheCheckKeepNothingBack) {
    options.check = [](const std::string& name, const std::string&) {
        return std::vector<Finding>{{name, 2, false, "suspicious"}};
    };
    const Result result = run();
    EXPECT_FALSE(result.refused);
    EXPECT_THAT(result.findings, SizeIs(1));
    EXPECT_TRUE(exists("out/02/provisioning.xml"));
}

TEST_F(Packing, WhateverIsInTheWayIsNamedAndKept) {
    std::filesystem::create_directories(root + "/out/contacts.xml");
    refused("contacts.xml", "is a folder");
    std::filesystem::remove(root + "/out/contacts.xml");
    write("elsewhere/x", "x");
    std::filesystem::create_symlink("../elsewhere", root + "/out/02");
    refused("02/provisioning.xml", "is not a folder");
    EXPECT_FALSE(exists("elsewhere/provisioning.xml"));
    std::filesystem::remove(root + "/out/02");
    std::filesystem::create_symlink("../elsewhere/x", root + "/out/contacts.xml");
    refused("contacts.xml", "symbolic link, which is not followed");
    EXPECT_EQ(read("elsewhere/x"), "x");
}

TEST_F(Packing, FoldersThatContainEachOtherOrTheKeyAreRefused) {
    options.to = options.from;
    EXPECT_THAT(errorOf([this] { run(); }), HasSubstr("is the folder that is read"));
    options.to = options.from + "/../in/published";
    EXPECT_THAT(errorOf([this] { run(); }), HasSubstr("is inside"));
    options.to = root;
    EXPECT_THAT(errorOf([this] { run(); }), HasSubstr("is inside"));
    std::filesystem::create_symlink("in", root + "/alias");
    options.to = root + "/alias";
    EXPECT_THAT(errorOf([this] { run(); }), HasSubstr("is the folder that is read"));
    options.to = root + "/out";
    for (const std::string folder : {"in", "out"}) {
        write(folder + "/key", "correct horse\n");
        options.keyFile = root + "/" + folder + "/key";
        EXPECT_THAT(errorOf([this] { run(); }), HasSubstr("where nothing is published"));
    }
    EXPECT_THAT(tree("out"), SizeIs(1));
}

TEST_F(Packing, ACopyOfTheKeyIsNeverPublished) {
    for (const std::string copy :
         {"correct horse\n", "correct horse", "correct horse\r\n\n", "correct horse\nold key"}) {
        write("key", copy == "correct horse\nold key" ? copy + "\n" : "correct horse\n");
        write("in/images/notes.txt", copy);
        refused("images/notes.txt", "holds the key of the phones (" + root + "/key), which must not be published");
        EXPECT_FALSE(exists("out"));
    }
    write("in/images/notes.txt", "correct horse, wrong place\n");
    EXPECT_FALSE(run().refused);
}

TEST_F(Packing, PathsAreComparedHoweverTheyAreWritten) {
    options.to = options.from + "/";
    EXPECT_THAT(errorOf([this] { run(); }), HasSubstr("is the folder that is read"));
    options.to = "";
    EXPECT_THAT(errorOf([this] { run(); }), HasSubstr("an empty path names no file"));
    std::filesystem::create_symlink("circle", root + "/circle");
    options.to = root + "/circle/out";
    EXPECT_THAT(errorOf([this] { run(); }), HasSubstr("/circle/out: cannot be examined: Too many levels"));
}

TEST_F(Packing, LinksToHiddenFilesAndVeryDeepFoldersAreRefused) {
    write("in/.git/config", "x");
    std::filesystem::create_symlink(".git/config", root + "/in/x");
    refused("x", "a symbolic link to a hidden file, which is not published");
    std::filesystem::remove(root + "/in/x");
    std::string deep = "d";
    while (deep.size() < 127) deep += "/d";
    write("in/" + deep + "/file", "x");
    refused(deep, "folders inside each other more than 64 deep");
}

TEST_F(Packing, AFolderOfMistakesOnlyNamesThem) {
    std::filesystem::remove_all(options.from);
    std::filesystem::create_directory(options.from);
    std::filesystem::create_symlink("nowhere", root + "/in/x");
    const Result result = run();
    EXPECT_TRUE(result.refused);
    EXPECT_EQ(toText(result.findings.at(0)).find("x: error: a symbolic link that leads nowhere"), 0U);
    EXPECT_EQ(toText({"x", 2, false, "suspicious", true, 3, "rule"}), "x:2:3: warning: suspicious [rule]");
}

TEST_F(Packing, ADryRunOfUnpackWritesNothing) {
    run();
    Options back;
    back.from = options.to;
    back.to = root + "/back";
    back.keyFile = options.keyFile;
    back.dryRun = true;
    EXPECT_THAT(unpack(back).decrypted, ElementsAre("02/provisioning.xml"));
    EXPECT_FALSE(exists("back"));
}

TEST_F(Packing, AMissingFolderIsNamed) {
    options.from = root + "/none";
    EXPECT_THAT(errorOf([this] { run(); }), HasSubstr(root + "/none: cannot be opened"));
    options.from = root + "/in";
    options.to = root + "/none/out";
    EXPECT_THAT(errorOf([this] { run(); }), HasSubstr(root + "/none/out: cannot be created"));
}

// A limit on the size of files stands for a full disk: the write fails in the middle.
TEST_F(Packing, AWriteThatFailsLeavesWhatIsPublished) {
    run();
    const auto before = tree("out");
    write("in/02/provisioning.xml", "<provisioning/>");
    write("in/images/a.img", std::string(600000, 'j'));
    struct rlimit former {};
    ::getrlimit(RLIMIT_FSIZE, &former);
    auto* const handler = std::signal(SIGXFSZ, SIG_IGN);
    const struct rlimit limit { 100000, former.rlim_max };
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    const std::string error = errorOf([this] { run(); });
    ::setrlimit(RLIMIT_FSIZE, &former);
    std::signal(SIGXFSZ, handler);
    EXPECT_THAT(error, HasSubstr("images/a.img: cannot be written: File too large"));
    EXPECT_EQ(tree("out"), before);
    EXPECT_FALSE(run().refused);
    EXPECT_EQ(read("out/images/a.img"), std::string(600000, 'j'));
}

TEST_F(Packing, WhatAKilledRunLeftIsRemoved) {
    run();
    write("out/.zavctl-staging/0", "half a file");
    write("in/contacts.xml", "<contacts>x</contacts>");
    run();
    EXPECT_FALSE(exists("out/.zavctl-staging"));
}

TEST_F(Packing, OneProcessAtATimeWritesToAFolder) {
    const Output other(options.to, Access::everybody);
    EXPECT_THAT(errorOf([this] { run(); }), HasSubstr(options.to + ": another zavctl is writing"));
    EXPECT_FALSE(exists("out/contacts.xml"));
}

TEST_F(Packing, InitialFilesArePublishedLast) {
    write("in/a-job.xml", "<settings/>");
    write("in/0/provisioning.xml", plainXml);
    run();
    std::vector<std::pair<std::int64_t, std::string>> byTime;
    for (const std::string name :
         {"02/provisioning.xml", "0/provisioning.xml", "a-job.xml", "contacts.xml", "images/a.img"}) {
        const struct stat status = statusOf("out/" + name);
        byTime.emplace_back(status.st_ctim.tv_sec * 1000000000 + status.st_ctim.tv_nsec, name);
    }
    const auto timeOf = [&](const std::string& name) {
        return std::find_if(byTime.begin(), byTime.end(), [&](const auto& one) { return one.second == name; })->first;
    };
    for (const std::string initial : {"0/provisioning.xml", "02/provisioning.xml"}) {
        EXPECT_LE(timeOf("a-job.xml"), timeOf(initial));
        EXPECT_LE(timeOf("images/a.img"), timeOf(initial));
    }
    EXPECT_LE(timeOf("images/a.img"), timeOf("a-job.xml"));
}

TEST_F(Packing, UnpackIsTheWayBack) {
    run();
    Options back;
    back.from = options.to;
    back.to = root + "/back";
    back.keyFile = options.keyFile;
    const Result result = unpack(back);
    EXPECT_THAT(result.decrypted, ElementsAre("02/provisioning.xml"));
    EXPECT_EQ(tree("back"), tree("in"));
    EXPECT_EQ(statusOf("back/02/provisioning.xml").st_mode & 0777U, 0600U);
    EXPECT_EQ(statusOf("back/02").st_mode & 0777U, 0700U);
    EXPECT_EQ(unpack(back).unchanged, 3U);
}

TEST_F(Packing, UnpackReplacesAFileThatDiffersOnlyByForce) {
    run();
    Options back;
    back.from = options.to;
    back.to = root + "/back";
    back.keyFile = options.keyFile;
    write("back/02/provisioning.xml", "my work of today");
    const Result result = unpack(back);
    EXPECT_TRUE(result.refused);
    ASSERT_THAT(result.findings, SizeIs(1));
    EXPECT_THAT(result.findings[0].text, HasSubstr("exists and differs"));
    EXPECT_EQ(read("back/02/provisioning.xml"), "my work of today");
    EXPECT_FALSE(exists("back/contacts.xml"));
    back.force = true;
    EXPECT_FALSE(unpack(back).refused);
    EXPECT_EQ(tree("back"), tree("in"));
}

TEST_F(Packing, UnpackWithAWrongKeyWritesNothing) {
    run();
    Options back;
    back.from = options.to;
    back.to = root + "/back";
    back.keyFile = root + "/wrong";
    // Enough keys to meet some whose result has valid padding.
    for (int attempt = 0; attempt < 1000; ++attempt) {
        write("wrong", "key " + std::to_string(attempt) + "\n");
        const Result result = unpack(back);
        ASSERT_TRUE(result.refused) << attempt;
        ASSERT_EQ(result.findings[0].text, "cannot be decrypted with this key");
        ASSERT_FALSE(exists("back"));
    }
}

}  // namespace
}  // namespace pack
