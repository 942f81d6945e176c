#include "pack/Fleet.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "Workspace.h"

namespace pack {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char templateXml[] =
    "<provisioning version=\"1.1\" productID=\"kd4v\" macAddress=\"{MACC}\">"
    "<nvm><param name=\"n\" value=\"{name}\"/></nvm></provisioning>";

class FleetTest : public Workspace {
 protected:
    FleetTest() {
        write("in/phone.xml", templateXml);
        table("mac,name\n02:00:5E:10:00:01,One\n02:00:5E:10:00:02,Two\n");
        options.table = root + "/t.csv";
        options.templatePath = root + "/in/phone.xml";
        options.place = "{MACD}/provisioning.xml";
        options.to = root + "/out";
        options.keyFile = root + "/key";
    }

    void table(const std::string& text) { write("t.csv", text); }
    FleetResult run() const { return fleet(options); }

    // "ROW REASON" of each failure.
    std::vector<std::string> failures() const {
        std::vector<std::string> texts;
        for (const RowFailure& one : run().failures) texts.push_back(std::to_string(one.row) + " " + one.reason);
        return texts;
    }

    FleetOptions options;
};

TEST_F(FleetTest, EachRowGetsItsFile) {
    const FleetResult result = run();
    EXPECT_EQ(result.rows, 2U);
    EXPECT_EQ(result.written, 2U);
    EXPECT_THAT(result.failures, IsEmpty());
    EXPECT_THAT(decrypted("out/02-00-5E-10-00-01/provisioning.xml"), HasSubstr("macAddress=\"02:00:5E:10:00:01\""));
    EXPECT_THAT(decrypted("out/02-00-5E-10-00-02/provisioning.xml"), HasSubstr("value=\"Two\""));
    EXPECT_THAT(tree("out"), SizeIs(4));
}

TEST_F(FleetTest, TwiceWritesNothing) {
    run();
    const auto before = tree("out");
    const FleetResult result = run();
    EXPECT_EQ(result.written, 0U);
    EXPECT_EQ(result.unchanged, 2U);
    EXPECT_EQ(tree("out"), before);
    table("mac,name\n02:00:5E:10:00:01,One\n02:00:5E:10:00:02,Other\n");
    EXPECT_EQ(run().written, 1U);
}

TEST_F(FleetTest, ADryRunWritesNothing) {
    options.dryRun = true;
    EXPECT_EQ(run().written, 2U);
    EXPECT_FALSE(exists("out"));
}

TEST_F(FleetTest, RowsThatFailAreListedAndTheOthersWritten) {
    table(
        "mac,name\n02:00:5E:10:00:01,One\nnot a mac,x\n02:00:5E:10:00:02\n02:00:5E:10:00:03,\x01\n"
        "02:00:5E:10:00:04,Four\n");
    EXPECT_THAT(failures(),
                ElementsAre("3 mac is not the MAC address of a device: not a mac", "4 1 fields, but 2 columns",
                            "5 name has a control character that XML cannot hold: \\x01"));
    EXPECT_TRUE(exists("out/02-00-5E-10-00-01/provisioning.xml"));
    EXPECT_TRUE(exists("out/02-00-5E-10-00-04/provisioning.xml"));
    EXPECT_FALSE(exists("out/02-00-5E-10-00-03"));
}

TEST_F(FleetTest, AllRowsForOneFileFail) {
    table("mac,name\n02:00:5E:10:00:01,a\n02:00:5E:10:00:02,b\n02-00-5E-10-00-01,c\n02005E100001,d\n");
    const std::string name = "02-00-5E-10-00-01/provisioning.xml is also the file of row ";
    EXPECT_THAT(failures(), ElementsAre("2 " + name + "4", "4 " + name + "2", "5 " + name + "2"));
    EXPECT_THAT(tree("out"), SizeIs(2));
}

TEST_F(FleetTest, OneAddressInTwoFormsFails) {
    table("mac,name\n02:00:5e:10:00:0a,a\n02:00:5E:10:00:0A,b\n02:00:5E:10:00:02,c\n02-00-5E-10-00-0A,d\n");
    EXPECT_THAT(failures(),
                ElementsAre("2 row 3 writes the same address in another way", HasSubstr("3 "), HasSubstr("5 ")));
    EXPECT_THAT(tree("out"), SizeIs(2));
}

TEST_F(FleetTest, AValueCannotLeaveTheOutputFolder) {
    options.place = "{name}/p.xml";
    table(
        "mac,name\n02:00:5E:10:00:01,..\n02:00:5E:10:00:01,a/"
        "b\n02:00:5E:10:00:01,\n02:00:5E:10:00:01,.x\n02:00:5E:10:00:01,\"a\nb\"\n");
    EXPECT_THAT(failures(),
                ElementsAre(HasSubstr("2 a step of the path is empty or begins with \".\""),
                            "3 name cannot be part of a path: a/b", "4 name is empty, but is part of a path",
                            HasSubstr("5 a step of the path"), "6 name cannot be part of a path: a\\nb"));
    EXPECT_FALSE(exists("out"));
    EXPECT_FALSE(exists("p.xml"));
}

TEST_F(FleetTest, AFileThatIsAlsoAFolderFails) {
    options.place = "{name}";
    write("in/t/{name}", "x {name}");
    write("in/t/{MACD}/y", "y");
    options.templatePath = root + "/in/t";
    options.place = "";
    table("mac,name\n02:00:5E:10:00:01,02-00-5E-10-00-02\n02:00:5E:10:00:02,b\n");
    EXPECT_THAT(failures(), ElementsAre(HasSubstr("2 02-00-5E-10-00-02 is also a folder")));
}

TEST_F(FleetTest, AFolderOfTemplatesWithFilesForAllRows) {
    write("t/{MACD}/provisioning.xml", templateXml);
    write("t/{MACD}/note.txt", "{name} & {{co}");
    write("t/{MACD}/image", std::string("\0{name}", 7));
    write("t/common/settings.xml", "<settings/>");
    options.templatePath = root + "/t";
    options.place = "";
    EXPECT_EQ(run().written, 7U);
    EXPECT_EQ(read("out/02-00-5E-10-00-01/note.txt"), "One & {co}");
    EXPECT_EQ(read("out/02-00-5E-10-00-01/image"), std::string("\0{name}", 7));
    EXPECT_EQ(decrypted("out/common/settings.xml"), "<settings/>");
    EXPECT_EQ(run().unchanged, 7U);
}

TEST_F(FleetTest, MistakesInTheTemplateWriteNothing) {
    const auto error = [this] { return errorOf([this] { run(); }); };
    write("in/phone.xml", "<nvm>\n{nmae}</nvm>");
    EXPECT_THAT(error(), HasSubstr("phone.xml:2: unknown placeholder {nmae}; there are mac, name, MACC, MACD"));
    write("in/phone.xml", "<Nvm>{name}</Nvm>");
    EXPECT_THAT(error(), HasSubstr("the phone wants \"nvm\""));
    write("in/phone.xml", "<?xml version='1.0' encoding='ISO-8859-1'?><nvm>{name}</nvm>");
    EXPECT_THAT(error(), HasSubstr("declares the encoding ISO-8859-1"));
    write("in/phone.xml", "<nvm>{name}\xff</nvm>");
    EXPECT_THAT(error(), HasSubstr("must be UTF-8"));
    write("in/phone.xml", templateXml);
    options.place = "phone.xml";
    EXPECT_THAT(error(), HasSubstr("every row would write phone.xml"));
    options.place = "{nmae}.xml";
    EXPECT_THAT(error(), HasSubstr("unknown placeholder {nmae}"));
    options.place = "../{name}.xml";
    EXPECT_THAT(failures(), ElementsAre(HasSubstr("2 a step of the path"), HasSubstr("3 a step of the path")));
    EXPECT_FALSE(exists("out"));
}

TEST_F(FleetTest, ACopyOfTheKeyIsNeverPublished) {
    write("t/{MACD}/phone.xml", templateXml);
    write("t/{MACD}/note.txt", "{name}");
    options.templatePath = root + "/t";
    options.place = "";
    table("mac,name\n02:00:5E:10:00:01,One\n02:00:5E:10:00:02,correct horse\n");
    EXPECT_THAT(failures(), ElementsAre("3 02-00-5E-10-00-02/note.txt would hold the key of the phones, which must not "
                                        "be published"));
    EXPECT_FALSE(exists("out/02-00-5E-10-00-02"));
    write("t/common/secret.txt", "correct horse");
    EXPECT_THAT(errorOf([this] { run(); }), HasSubstr("common/secret.txt: holds the key of the phones"));
    EXPECT_FALSE(exists("out/common"));
}

TEST_F(FleetTest, AnErrorThatAllRowsHaveIsReportedOnceAndNothingWritten) {
    table("mac,name\nx,y\n02:00:5E:10:00:01,One\n02:00:5E:10:00:02,Three\n");
    options.check = [](const std::string& name, const std::string& bytes) {
        return std::vector<Finding>{{name, 1, true, "bad value", true, bytes.find("n\" value") + 1, "r"},
                                    {name, 2, true, "no such key", true, bytes.size(), "unknown-key"},
                                    {name, 3, false, "suspicious", true, 1, "s"}};
    };
    EXPECT_THAT(errorOf([this] { run(); }), HasSubstr("in/phone.xml:1:"));
    options.check = [](const std::string& name, const std::string& bytes) {
        return std::vector<Finding>{
            {name, 2, true, bytes.find("One") != std::string::npos ? "bad value One" : "bad value Three"},
            {name, 2, true, "no such key", true, bytes.size(), "unknown-key"}};
    };
    EXPECT_THAT(errorOf([this] { run(); }),
                testing::MatchesRegex(".*/in/phone.xml:2:[0-9]+: error: no such key \\[unknown-key\\] "
                                      "\\(the same in every row; nothing was written\\)"));
    EXPECT_FALSE(exists("out"));
    options.force = true;
    EXPECT_THAT(failures(), SizeIs(1));
}

TEST_F(FleetTest, MacAddressesInLowerCaseAreKeptWithAWarning) {
    table("MAC,name\n02:00:5E:10:00:01,One\n02:00:5e:10:00:02,Two\n");
    options.place = "{MACD}/provisioning.xml";
    const FleetResult result = run();
    EXPECT_THAT(result.failures, IsEmpty());
    EXPECT_TRUE(exists("out/02-00-5e-10-00-02/provisioning.xml"));
    EXPECT_THAT(result.warnings,
                ElementsAre(root + "/t.csv: MAC addresses in lower case, which paths keep: 1 of 2 rows, "
                                   "the first is row 3; a phone whose NET.MAC.Address is in upper case "
                                   "asks for another path"));
    options.place = "{name}.xml";  // the phone compares the address in a file in any case
    EXPECT_THAT(run().warnings, IsEmpty());
}

TEST_F(FleetTest, ErrorsOfTheCheckFailTheirRow) {
    options.check = [](const std::string& name, const std::string& bytes) {
        std::vector<Finding> findings{{name, 1, false, "just a warning"}};
        if (bytes.find("Two") != std::string::npos) findings.push_back({name, 1, true, "no such value"});
        return findings;
    };
    EXPECT_THAT(failures(), ElementsAre("3 02-00-5E-10-00-02/provisioning.xml:1: error: no such value"));
    EXPECT_FALSE(exists("out/02-00-5E-10-00-02"));
    options.force = true;
    EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(FleetTest, InputsInsideTheOutputFolderAreRefused) {
    options.to = root;
    EXPECT_THAT(errorOf([this] { run(); }), HasSubstr("t.csv: is inside"));
    options.to = root + "/in";
    EXPECT_THAT(errorOf([this] { run(); }), HasSubstr("phone.xml: is inside"));
    write("in/t.csv", "a\nb\n");
    options.to = root + "/out";
    options.templatePath = root + "/in";
    options.table = root + "/in/t.csv";
    EXPECT_THAT(errorOf([this] { run(); }), HasSubstr("t.csv: is inside"));
}

TEST_F(FleetTest, ColumnsThatStandForTheAddressTwiceAreRefused) {
    const auto error = [this] { return errorOf([this] { run(); }); };
    table("mac,MAC,name\n02:00:5E:10:00:01,02:00:5E:10:00:01,One\n");
    EXPECT_THAT(error(), HasSubstr("t.csv: two columns are named mac"));
    table("Mac,MACD\n02:00:5E:10:00:01,One\n");
    EXPECT_THAT(error(), HasSubstr("t.csv: a column is named MACD, which column Mac stands for already"));
    EXPECT_FALSE(exists("out"));
}

TEST_F(FleetTest, ATableNeedsNoAddresses) {
    table("name\nab\ncd\n");
    write("in/phone.xml", "<nvm><param name=\"n\" value=\"{name}\"/></nvm>");
    options.place = "{name}.xml";
    const FleetResult result = run();
    EXPECT_THAT(result.failures, IsEmpty());
    EXPECT_THAT(result.warnings, IsEmpty());
    EXPECT_THAT(decrypted("out/cd.xml"), HasSubstr("value=\"cd\""));
}

TEST_F(FleetTest, AddressesThatDifferOnlyInCaseFailBoth) {
    table("mac,name\n02:00:5E:10:00:0A,a\n02:00:5e:10:00:0a,b\n02:00:5E:10:00:01,c\n");
    EXPECT_THAT(failures(), ElementsAre("2 row 3 writes the same address in another way",
                                        "3 row 2 writes the same address in another way"));
    EXPECT_THAT(tree("out"), SizeIs(2));
}

TEST_F(FleetTest, PathsWithEmptyOrLongStepsFail) {
    options.place = "{name}//p.xml";
    table("mac,name\n02:00:5E:10:00:01,a\n");
    EXPECT_THAT(failures(), ElementsAre(HasSubstr("2 a step of the path is empty or begins with \".\": a//p.xml")));
    options.place = "{name}.xml";
    table("mac,name\n02:00:5E:10:00:01," + std::string(252, 'n') + "\n02:00:5E:10:00:02," + std::string(251, 'n') +
          "\n");
    EXPECT_THAT(failures(), ElementsAre(HasSubstr("2 a name of more than 255 bytes: nnn")));
}

class FleetOfAFolder : public FleetTest {
 protected:
    FleetOfAFolder() {
        write("t/{MACD}/provisioning.xml", templateXml);
        write("t/common/settings.xml", "<settings/>");
        options.templatePath = root + "/t";
        options.place = "";
    }
    std::string error() const {
        return errorOf([this] { run(); });
    }
};

TEST_F(FleetOfAFolder, ARowCannotReplaceAFileForAllRows) {
    write("t/{name}/settings.xml", "<settings/>");
    table("mac,name\n02:00:5E:10:00:01,common\n02:00:5E:10:00:02,b\n");
    EXPECT_THAT(failures(), ElementsAre("2 common/settings.xml is also a file for all rows"));
    EXPECT_FALSE(exists("out/02-00-5E-10-00-01"));
    EXPECT_TRUE(exists("out/02-00-5E-10-00-02"));
}

TEST_F(FleetOfAFolder, AMistakeInAFileForAllRowsWritesNothing) {
    options.check = [](const std::string& name, const std::string&) {
        return std::vector<Finding>{{name, 1, name == "common/settings.xml", "no such setting"}};
    };
    EXPECT_EQ(error(), "common/settings.xml:1: error: no such setting");
    EXPECT_FALSE(exists("out"));
    options.check = nullptr;
    write("out/common/settings.xml/file", "");
    EXPECT_THAT(error(), HasSubstr("/out/common/settings.xml is a folder"));
    EXPECT_THAT(tree("out"), SizeIs(3));
}

TEST_F(FleetOfAFolder, AnErrorInOneOfSeveralFilesIsNotThatOfAllRows) {
    write("t/{MACD}/note.txt", "{name}");
    table("mac,name\n02:00:5E:10:00:01,One\n02:00:5E:10:00:02,\x01\n02:00:5E:10:00:03,Three\n");
    options.check = [](const std::string& name, const std::string& bytes) {
        std::vector<Finding> findings;
        if (bytes.find("One") != std::string::npos) findings.push_back({name, 1, true, "no such value"});
        return findings;
    };
    EXPECT_THAT(failures(), ElementsAre(HasSubstr("2 02-00-5E-10-00-01/provisioning.xml:1: error: no such value"),
                                        HasSubstr("3 name has a control character")));
    EXPECT_TRUE(exists("out/02-00-5E-10-00-03/note.txt"));
}

TEST_F(FleetOfAFolder, TemplatesThatCannotBeUsedAreRefused) {
    options.place = "{name}.xml";
    EXPECT_THAT(error(), HasSubstr("/t: is a folder; --name is for a single file"));
    options.place = "";
    std::filesystem::create_symlink("/etc/passwd", root + "/t/x");
    EXPECT_THAT(error(), HasSubstr("/t/x: a symbolic link that leads out of the folder"));
    std::filesystem::remove(root + "/t/x");
    write("t/{name}.xml", encrypt("<nvm/>", passPhrase));
    EXPECT_THAT(error(), HasSubstr("/t/{name}.xml: is encrypted; a template must be plain"));
    options.templatePath = root + "/t/common/settings.xml";
    EXPECT_THAT(error(), HasSubstr("no file of the template has a placeholder in its place, such as "
                                   "{mac}/provisioning.xml; a single file gets one with --name"));
    EXPECT_FALSE(exists("out"));
}

TEST_F(FleetTest, ATemplateMayDeclareThatItIsUtf8) {
    const std::string body = "<nvm><param name=\"n\" value=\"{name}\"/></nvm>";
    for (const std::string declaration : {"<?xml version='1.0'?>", "<?xml version='1.0' encoding=\"utf-8\"?>"}) {
        write("in/phone.xml", declaration + body);
        run();
        EXPECT_THAT(decrypted("out/02-00-5E-10-00-01/provisioning.xml"), testing::StartsWith(declaration + "<nvm>"));
    }
}

TEST_F(FleetTest, AFileThatPhonesRefuseForItsSizeFailsItsRow) {
    write("in/phone.xml", "<nvm a=\"{name}\"><!--" + std::string(16UL * 1024 * 1024 - 100, ' ') + "--></nvm>");
    table("mac,name\n02:00:5E:10:00:01," + std::string(100, 'n') + "\n02:00:5E:10:00:02,b\n");
    EXPECT_THAT(failures(), ElementsAre("2 02-00-5E-10-00-01/provisioning.xml is too large: phones refuse more than 16 "
                                        "MiB, encrypted"));
    EXPECT_TRUE(exists("out/02-00-5E-10-00-02/provisioning.xml"));
}

}  // namespace
}  // namespace pack
