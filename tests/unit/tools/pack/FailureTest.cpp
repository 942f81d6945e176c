// What pack does while the disk fails, descriptors run out, or somebody else changes the folders.
#include <gmock/gmock.h>
#include <openssl/provider.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <optional>

#include "FailingCalls.h"
#include "Workspace.h"
#include "fakes/FewDescriptors.h"
#include "pack/Files.h"
#include "pack/Output.h"
#include "pack/Pack.h"
#include "pack/Published.h"

namespace pack {
namespace {

namespace fs = std::filesystem;

using failing::Call;
using failing::Calls;
using fakes::FewDescriptors;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class PackFailure : public Workspace {
 protected:
    PackFailure() {
        options.from = root + "/in";
        options.to = root + "/out";
        options.keyFile = root + "/key";
        write("in/02/provisioning.xml", plainXml);
        write("in/contacts.xml", "<contacts/>");
        write("out/contacts.xml", "published before");
    }

    std::string packingError() {
        return errorOf([this] { pack(options); });
    }
    static void ignoreProgress(std::size_t) {}

    Options options;
};

TEST_F(PackFailure, InterruptedCallsAreRepeated) {
    const Calls reads(Call::read, EINTR, 3, 1);
    const Calls writes(Call::write, EINTR, 2);
    EXPECT_FALSE(pack(options).refused);
    EXPECT_EQ(decrypted("out/02/provisioning.xml"), plainXml);
    EXPECT_EQ(read("out/contacts.xml"), "<contacts/>");
    EXPECT_EQ(reads.failed() + writes.failed(), 5);
}

TEST_F(PackFailure, ADiskThatFailsChangesNothing) {
    struct Row {
        Call call;
        int error;
        const char* text;
    };
    for (const Row& row : {Row{Call::flock, ENOLCK, "/out/.zavctl-staging: cannot be locked: No locks available"},
                           Row{Call::fchmod, EPERM, ": cannot be written: Operation not permitted"},
                           Row{Call::write, EIO, ": cannot be written: Input/output error"},
                           Row{Call::syncfs, EIO, "/out: cannot be synced to the disk: Input/output error"}}) {
        const Calls failing(row.call, row.error);
        EXPECT_THAT(packingError(), HasSubstr(row.text));
        EXPECT_EQ(failing.failed(), 1) << row.text;
        EXPECT_THAT(tree("out"), SizeIs(1)) << row.text;
        EXPECT_EQ(read("out/contacts.xml"), "published before") << row.text;
    }
}

TEST_F(PackFailure, AFileThatCannotBeReadIsNamed) {
    {
        const Calls failing(Call::read, EIO);
        EXPECT_THAT(errorOf([this] { readFile(root + "/key", 100); }), HasSubstr("/key: cannot be read: Input/output"));
    }
    {
        const Calls failing(Call::fstat, EIO);
        EXPECT_THAT(errorOf([this] { readFile(root + "/key", 100); }), HasSubstr("/key: cannot be opened: Input/out"));
    }
    EXPECT_THAT(errorOf([this] { readFile(root + "/key", 3); }), HasSubstr("/key: has more than 3 bytes"));
    ASSERT_EQ(::mkfifo((root + "/pipe").c_str(), 0600), 0);
    EXPECT_THAT(errorOf([this] { readFile(root + "/pipe", 3); }), HasSubstr("/pipe: is not a regular file"));
    Output output(options.to, Access::everybody);
    const Calls failing(Call::read, EIO);
    EXPECT_THAT(errorOf([&] { output.stageCopy("a", root + "/key"); }), HasSubstr("/key: cannot be read: Input/outp"));
}

// Files below /proc have the size 0, whatever they hold.
TEST_F(PackFailure, AFileThatHasGrownIsReadWhole) {
    EXPECT_EQ(readFile("/proc/cpuinfo", 1UL << 24U).find("processor"), 0U);
    EXPECT_FALSE(sameContent("/proc/cpuinfo", "/proc/version"));
}

TEST_F(PackFailure, WhatCannotBeComparedIsPublishedAgain) {
    write("out/contacts.xml", "<contacts/>");
    ASSERT_TRUE(hasContent(root + "/out/contacts.xml", "<contacts/>"));
    ASSERT_TRUE(sameContent(root + "/in/contacts.xml", root + "/out/contacts.xml"));
    const std::string encrypted = encrypt(plainXml, passPhrase);
    write("out/a.xml", encrypted);
    ASSERT_TRUE(isPublished(root + "/out/a.xml", plainXml, passPhrase));
    {
        const Calls failing(Call::fstat, EIO, 1, 1);
        EXPECT_FALSE(sameContent(root + "/in/contacts.xml", root + "/out/contacts.xml"));
    }
    if (failing::sanitizerNeedsDescriptors) GTEST_SKIP() << "the sanitizer needs descriptors";
    const FewDescriptors none(0);
    EXPECT_FALSE(hasContent(root + "/out/contacts.xml", "<contacts/>"));
    EXPECT_FALSE(isPublished(root + "/out/a.xml", plainXml, passPhrase));
}

TEST_F(PackFailure, WithoutDescriptorsNothingIsListedOrWritten) {
    if (failing::sanitizerNeedsDescriptors) GTEST_SKIP() << "the sanitizer needs descriptors";
    std::optional<Output> output(std::in_place, options.to, Access::everybody);
    {
        const FewDescriptors none(0);
        EXPECT_THAT(errorOf([this] { listFolder(options.from); }), HasSubstr("/in: cannot be read: Too many open"));
        EXPECT_THAT(errorOf([this] { listPublished(options.to); }), HasSubstr("/out: cannot be read: Too many open"));
        EXPECT_THAT(errorOf([&] { output->stage("a", "b"); }), HasSubstr("a: cannot be written: Too many open files"));
        EXPECT_THAT(errorOf([&] { output->stageCopy("a", root + "/key"); }), HasSubstr("/key: cannot be opened: Too"));
    }
    const FewDescriptors one(1);
    EXPECT_THAT(errorOf([&] { output->stageCopy("a", root + "/key"); }), HasSubstr("a: cannot be written: Too many"));
    const Folder folder = listFolder(options.from);
    ASSERT_THAT(folder.problems, SizeIs(1));
    EXPECT_EQ(folder.problems[0].file, "02");
    EXPECT_EQ(folder.problems[0].reason, "the folder cannot be read: Too many open files");
}

TEST_F(PackFailure, AnOutputFolderThatCannotBeUsedIsNamed) {
    options.to = root + "/key";
    options.keyFile = root + "/other";
    write("other", "correct horse\n");
    const Result result = pack(options);
    EXPECT_TRUE(result.refused);
    ASSERT_THAT(result.findings, SizeIs(2));
    EXPECT_EQ(result.findings[0].text, root + "/key/02 cannot be examined: Not a directory");
    EXPECT_EQ(result.findings[1].text, root + "/key/contacts.xml cannot be examined: Not a directory");
    EXPECT_THAT(errorOf([] { const Output output("/proc", Access::everybody); }),
                HasSubstr("/proc: cannot be written to: "));
}

TEST_F(PackFailure, ALinkInPlaceOfTheStagingFolderIsNotFollowed) {
    fs::create_symlink(root + "/in", root + "/out/.zavctl-staging");
    EXPECT_THAT(packingError(), HasSubstr("/out/.zavctl-staging: cannot be opened: "));
    EXPECT_TRUE(exists("in/contacts.xml"));
}

TEST_F(PackFailure, AFileThatChangesMeanwhileKeepsAllBack) {
    options.progress = [this](std::size_t done, std::size_t total) {
        if (done == total) write("in/contacts.xml", "<contacts>more</contacts>");
    };
    EXPECT_THAT(packingError(),
                HasSubstr("/in/contacts.xml: has changed while it was being read; nothing was written"));
    EXPECT_EQ(read("out/contacts.xml"), "published before");
}

TEST_F(PackFailure, AFailureBetweenTwoFilesSaysHowManyArePublished) {
    const auto publishing = [this](const std::string& second, const std::string& inTheWay) {
        Output output(options.to, Access::everybody);
        const std::vector<Staged> files{output.stage("a", "one"), output.stage(second, "two")};
        return errorOf([&] { output.publish(files, [&](std::size_t) { write(inTheWay, ""); }); });
    };
    EXPECT_THAT(publishing("b", "out/b/file"), HasSubstr("/out/b: cannot be written: Is a directory (1 of 2 files were "
                                                         "published before)"));
    EXPECT_THAT(publishing("c/d", "out/c"), HasSubstr("/out/c: is not a folder (1 of 2 files"));
    EXPECT_EQ(read("out/a"), "one");
    EXPECT_FALSE(exists("out/.zavctl-staging"));
}

TEST_F(PackFailure, AFolderThatVanishesIsNamed) {
    Output output(options.to, Access::everybody);
    const std::vector<Staged> files{output.stage("a/b", "one")};
    fs::remove_all(options.to);
    EXPECT_THAT(errorOf([&] { output.publish(files, ignoreProgress); }),
                HasSubstr("/out/a: cannot be created: No such file or directory (0 of 1 files"));
}

TEST_F(PackFailure, WhatCannotBeRemovedIsNamedAndFoldersInUseStay) {
    Output output(options.to, Access::everybody);
    write("out/a/b", "");
    EXPECT_THAT(errorOf([&] { output.remove({"a"}); }), HasSubstr("/out/a: cannot be removed: Is a directory"));
    write("out/a/c", "");
    output.remove({"a/b", "gone"});
    EXPECT_FALSE(exists("out/a/b"));
    EXPECT_TRUE(exists("out/a/c"));
    const Calls failing(Call::syncfs, EIO);
    EXPECT_THAT(errorOf([&] { output.remove({"a/c"}); }), HasSubstr("/out: cannot be synced to the disk: "));
}

TEST_F(PackFailure, WhatIsInTheWayOfAFileIsNamed) {
    const std::string longName(300, 'n');
    EXPECT_THAT(obstacle(root, longName), HasSubstr(" cannot be examined: File name too long"));
    EXPECT_THAT(obstacle(root, longName + "/a"), HasSubstr(" cannot be examined: File name too long"));
    ASSERT_EQ(::mkfifo((root + "/pipe").c_str(), 0600), 0);
    EXPECT_THAT(obstacle(root, "pipe"), HasSubstr("/pipe is not a regular file"));
    EXPECT_EQ(obstacle(root, "none/file"), "");
}

TEST_F(PackFailure, OneFolderUnderTwoNamesIsRefused) {
    fs::create_directories(root + "/mounted");
    if (::mount((root + "/in").c_str(), (root + "/mounted").c_str(), nullptr, MS_BIND, nullptr) != 0) {
        GTEST_SKIP() << "this machine refuses mounts";
    }
    options.to = root + "/mounted";
    EXPECT_THAT(packingError(), HasSubstr("/mounted: is the folder that is read"));
    options.to = root + "/mounted/out";
    EXPECT_THAT(packingError(), HasSubstr("/mounted/out: is inside "));
    options.to = root + "/out";
    options.keyFile = root + "/mounted/key";
    write("mounted/key", "correct horse\n");
    EXPECT_THAT(packingError(), HasSubstr("/mounted/key: is inside "));
    ASSERT_EQ(::umount((root + "/mounted").c_str()), 0);
    EXPECT_EQ(read("out/contacts.xml"), "published before");
}

// A configuration of OpenSSL that loads no provider.
TEST_F(PackFailure, OpenSslWithoutCiphersIsAnError) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string encrypted = "Salted__" + std::string(24, 'x');
    const auto convertWithout = [&] {
        OSSL_PROVIDER_load(nullptr, "null");
        std::cerr << errorOf([&] { encrypt(plainXml, passPhrase); }) << "\n"
                  << errorOf([&] { decrypt(encrypted, passPhrase); }) << std::endl;
        std::_Exit(0);
    };
    EXPECT_EXIT(convertWithout(), testing::ExitedWithCode(0),
                testing::AllOf(HasSubstr("OpenSSL cannot provide random bytes: "),
                               HasSubstr("\nOpenSSL cannot provide "), HasSubstr(": unsupported")));
}

}  // namespace
}  // namespace pack
