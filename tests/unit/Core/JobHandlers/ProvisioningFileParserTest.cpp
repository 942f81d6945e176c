#include "Core/JobHandlers/ProvisioningFileParser.h"

#include <chrono>
#include <filesystem>
#include <random>

#include "unit/Core/JobHandlers/HandlerFixture.h"

namespace {

using fakes::error;
using fakes::info;
using fakes::warning;
using zav::JobDescription;
using Lines = fakes::LogCapture::Lines;

const std::string source = "Core/JobHandlers/ProvisioningFileParser";
const std::string path = "/var/volatile/provisioning/file.xml";

std::string toText(const std::vector<JobDescription>& jobs) {
    std::string text;
    for (const JobDescription& job : jobs) {
        text += job.name + "/" + job.itemName + ":";
        for (const zav::Attributes& item : job.items) {
            for (const auto& [name, value] : item) text += " " + name + "=" + value;
            text += ",";
        }
        text += "\n";
    }
    return text;
}

class ProvisioningFileParserTest : public tests::HandlerFixture {
 protected:
    ProvisioningFileParserTest() { zav::setCurrentProvisioningVersion(""); }

    zav::ProvisioningFileParser parser(const std::string& content) {
        tests::writeFile(path, content);
        return zav::ProvisioningFileParser(path, reader_, phone_.properties);
    }
    bool verify(const std::string& attributes, const std::string& root = "provisioning") {
        phone_.log.forget();
        return parser("<" + root + " " + attributes + "/>").loadAndVerify();
    }
    std::vector<JobDescription> jobsOf(const std::string& document) {
        tests::writeFile(path, document);
        EXPECT_TRUE(reader_.load(path)) << document;
        std::vector<JobDescription> jobs;
        EXPECT_TRUE(collector_.collectJobs(jobs));
        return jobs;
    }
    static Lines failed(Lines lines, const std::string& digits) {
        lines.insert(lines.begin(), info(source, "File " + path + " is verifiable"));
        lines.push_back(error(source, "File " + path + " check error: " + digits));
        return lines;
    }
    zav::ProvisioningFileParser collector_{"/tmp/nothing to decrypt", reader_, phone_.properties};
    const fakes::LogLine anyMac_ = info(source, "MAC address not provided in XML, skipping check");
};

TEST_F(ProvisioningFileParserTest, PlainFileIsUnchanged) {
    const std::string content = tests::provisioningFile("provisioning", "1.1", "");
    parser(content);
    EXPECT_EQ(tests::contentOf(path), content);
    EXPECT_FALSE(tests::exists(path + ".tmp"));
    EXPECT_TRUE(phone_.log.lines().empty());
}

TEST_F(ProvisioningFileParserTest, EncryptedFileIsDecryptedInPlace) {
    const std::string content = tests::provisioningFile("provisioning", "1.1", "");
    parser(tests::encrypted(content));
    EXPECT_EQ(tests::contentOf(path), content);
    EXPECT_FALSE(tests::exists(path + ".tmp"));
}

TEST_F(ProvisioningFileParserTest, ShutdownStopsDecryption) {
    const std::string content = tests::encrypted(tests::provisioningFile("provisioning", "1.1", ""));
    stop_->stop();
    parser(content);
    EXPECT_EQ(tests::contentOf(path), content);
}

TEST_F(ProvisioningFileParserTest, FileForAnotherKeyIsUnchanged) {
    const std::string content = tests::encrypted(tests::provisioningFile("provisioning", "1.1", ""), "another");
    auto files = parser(content);
    EXPECT_EQ(tests::contentOf(path), content);
    EXPECT_FALSE(tests::exists(path + ".tmp"));
    EXPECT_FALSE(files.loadAndVerify());
    EXPECT_EQ(phone_.log.lines(), Lines{warning(source, "File " + path + " is corrupted")});
}

TEST_F(ProvisioningFileParserTest, DecryptsNothingWithoutAKey) {
    const std::string content = tests::encrypted("secret");
    std::filesystem::remove("/etc/zav.d/key");
    parser(content);
    EXPECT_EQ(tests::contentOf(path), content);
    EXPECT_FALSE(tests::exists(path + ".tmp"));
}

TEST_F(ProvisioningFileParserTest, MissingFileIsCorrupted) {
    zav::ProvisioningFileParser files("/var/volatile/provisioning/none", reader_, phone_.properties);
    EXPECT_FALSE(files.loadAndVerify());
    EXPECT_EQ(phone_.log.lines(), Lines{warning(source, "File /var/volatile/provisioning/none is corrupted")});
}

TEST_F(ProvisioningFileParserTest, FileForThisPhoneIsVerified) {
    EXPECT_TRUE(verify(R"(version="1.1" productID="kd4v")"));
    EXPECT_EQ(phone_.log.lines(), (Lines{info(source, "File " + path + " is verifiable"), anyMac_,
                                         info(source, "File " + path + " verified positively.")}));
    for (const char* root : {"firmware", "nvm", "settings", "custom", "scenario"}) {
        EXPECT_TRUE(verify(R"(version="1.0" productID="kd4v")", root)) << root;
    }
}

TEST_F(ProvisioningFileParserTest, OtherRootElementsFailSilently) {
    for (const char* root : {"category", "Provisioning", "file", "x"}) {
        EXPECT_FALSE(verify(R"(version="1.1" productID="kd4v")", root)) << root;
        EXPECT_TRUE(phone_.log.lines().empty());
    }
}

TEST_F(ProvisioningFileParserTest, ProductMustMatchExactly) {
    EXPECT_FALSE(verify(R"(version="1.1")"));
    EXPECT_EQ(phone_.log.lines(),
              failed({error(source, "Product ID is not specified in xml"), anyMac_}, "ID=0 MAC=1 VER=1"));
    for (const char* product : {"KD4V", "kd4", "kd4v ", ""}) {
        EXPECT_FALSE(verify("version=\"1.1\" productID=\"" + std::string(product) + "\""));
        EXPECT_EQ(phone_.log.lines(),
                  failed({warning(source, "Incorrect product ID '" + std::string(product) + "'='kd4v'"), anyMac_},
                         "ID=0 MAC=1 VER=1"));
    }
}

TEST_F(ProvisioningFileParserTest, MacAddressPrefixMustMatchIgnoringCase) {
    const auto withMac = [this](const std::string& mac) {
        return verify("version=\"1.1\" productID=\"kd4v\" macAddress=\"" + mac + "\"");
    };
    EXPECT_TRUE(withMac("00:0A:0B:0C:0D:0E"));
    EXPECT_TRUE(withMac("00:0a:0b:0c:0d:0e"));
    EXPECT_TRUE(withMac("00:0A:0B:0C:0D:0E:FF"));
    for (const char* mac :
         {"000A0B0C0D0E", "00:0A:0B:0C:0D", "00-0A-0B-0C-0D-0E", "", "00:0A:0B:0C:0D:0F", "\xc3\xa4"}) {
        EXPECT_FALSE(withMac(mac)) << mac;
        EXPECT_EQ(phone_.log.lines(), failed({}, "ID=1 MAC=0 VER=1"));
    }
    phone_.properties->put("NET.MAC.Address", "");
    EXPECT_TRUE(withMac("anything"));
}

TEST_F(ProvisioningFileParserTest, UnreadableMacAddressEndsTheChecks) {
    phone_.properties->failKey("NET.MAC.Address");
    EXPECT_FALSE(verify(R"(version="1.1" productID="kd4v")"));
    EXPECT_EQ(phone_.log.lines(),
              (Lines{info(source, "File " + path + " is verifiable"),
                     error(source,
                           "XML File doesn't meet provisioning requirements. Exception thrown: Property "
                           "'NET.MAC.Address': the property service is offline")}));
}

TEST_F(ProvisioningFileParserTest, VersionsAreComparedByteByByte) {
    const auto withVersion = [this](const std::string& version) {
        return verify("productID=\"kd4v\" version=\"" + version + "\"");
    };
    for (const char* version : {"1.0", "1.1", "1.05", "1.00", "1.0.9"}) EXPECT_TRUE(withVersion(version)) << version;
    for (const char* version : {"1.2", "0.9", "1", "1.1.0", "", "1.1 ", "2.0", "1.10"}) {
        EXPECT_FALSE(withVersion(version)) << version;
        EXPECT_EQ(phone_.log.lines(),
                  failed({anyMac_, warning(source, "Incorrect file format version, provisioning not supported")},
                         "ID=1 MAC=1 VER=0"));
    }
    EXPECT_FALSE(verify("productID=\"kd4v\""));
    EXPECT_EQ(phone_.log.lines(),
              failed({anyMac_, error(source, "Provisioning version is not specified in xml")}, "ID=1 MAC=1 VER=0"));
}

TEST_F(ProvisioningFileParserTest, LaterFilesMustHaveTheVersionOfThePass) {
    ASSERT_TRUE(parser(tests::provisioningFile("provisioning", "1.0", "")).parseInitialFile());
    EXPECT_EQ(zav::currentProvisioningVersion(), "1.0");
    EXPECT_TRUE(verify(R"(version="1.0" productID="kd4v")"));
    EXPECT_FALSE(verify(R"(version="1.1" productID="kd4v")"));
    EXPECT_EQ(phone_.log.lines(), failed({anyMac_, warning(source, "Inconsistient provisioning versions '1.0'='1.1'")},
                                         "ID=1 MAC=1 VER=0"));
    EXPECT_EQ(zav::currentProvisioningVersion(), "1.0");
}

TEST_F(ProvisioningFileParserTest, InitialFileNeedsAProvisioningRoot) {
    EXPECT_FALSE(parser(tests::provisioningFile("settings", "1.1", "")).parseInitialFile());
    EXPECT_EQ(phone_.log.lines().back(), warning(source, "Initial file is does not contain <provisioning> node."));
    EXPECT_EQ(zav::currentProvisioningVersion(), "1.1") << "set in either case";
    zav::setCurrentProvisioningVersion("");
    EXPECT_FALSE(parser("<provisioning version=\"1.1\"/>").parseInitialFile());
    EXPECT_EQ(zav::currentProvisioningVersion(), "") << "an unverified file must not change it";
}

struct JobsRow {
    const char* document;
    const char* jobs;
};

class CollectJobsTest : public ProvisioningFileParserTest, public testing::WithParamInterface<JobsRow> {};

TEST_P(CollectJobsTest, FindsTheJobs) { EXPECT_EQ(toText(jobsOf(GetParam().document)), GetParam().jobs); }

INSTANTIATE_TEST_SUITE_P(
    Trees, CollectJobsTest,
    testing::Values(
        JobsRow{R"(<nvm><file v="1"/><file v="2"/></nvm>)", "nvm/file: v=1, v=2,\n"},
        JobsRow{R"(<p><nvm><param n="1"/></nvm><firmware><file u="2"/></firmware></p>)",
                "nvm/param: n=1,\nfirmware/file: u=2,\n"},
        JobsRow{R"(<nvm/>)", ""}, JobsRow{R"(<nvm> </nvm>)", ""}, JobsRow{R"(<p><nvm/></p>)", ""},
        // A leaf without attributes adds nothing, but its name counts.
        JobsRow{R"(<nvm><param n="1"/><param/></nvm>)", "nvm/param: n=1,\n"},
        JobsRow{R"(<nvm><param n="1"/><other/></nvm>)", ""},
        JobsRow{R"(<p><nvm><param n="1"/><parm n="2"/></nvm></p>)", ""},
        // An element that contains white space is not a leaf.
        JobsRow{R"(<nvm><param n="1"> </param></nvm>)", ""},
        // A nested level clears the set of names and leaves its own names there, against which the leaf before it is
        // checked.
        JobsRow{R"(<p><a x="1"/><nvm><param n="1"/></nvm></p>)", "nvm/param: n=1,\np/a: x=1,\n"},
        JobsRow{R"(<p><nvm><param n="1"/></nvm><other x="1"/></p>)", "nvm/param: n=1,\n"},
        // The root's level continues from "nvm" too and so visits the last leaf twice.
        JobsRow{R"(<p><nvm><param n="1"/></nvm><param x="1"/></p>)", "nvm/param: n=1,\np/param: x=1,\np/param: x=1,\n"},
        // After two nested levels the walk continues from the element that was entered last.
        JobsRow{R"(<p><group><nvm><param n="1"/></nvm></group><group><nvm><param n="2"/></nvm></group></p>)",
                "nvm/param: n=1,\n"},
        JobsRow{R"(<p><group><nvm><param n="1"/></nvm><x y="2"/></group></p>)", "nvm/param: n=1,\n"},
        // CDATA has an empty name and no attributes, and that name counts.
        JobsRow{R"(<nvm><![CDATA[x]]><param n="1"/></nvm>)", ""}));

TEST_F(ProvisioningFileParserTest, InconsistentJobIsLoggedWithItsName) {
    jobsOf(R"(<p><nvm><param n="1"/><parm n="2"/></nvm></p>)");
    EXPECT_EQ(phone_.log.lines(),
              Lines{info(source, "XML child nodes have inconsistient names, please verify xml job: nvm")});
}

/// An independent implementation of the walk over a random tree: a cursor, a stack that is never popped, and one set of
/// names.
class Model {
 public:
    struct Node {
        std::string name;
        zav::Attributes attributes;
        int parent = -1, firstChild = -1, next = -1;
        bool text = false;
    };

    explicit Model(std::mt19937& random) : random_(random) { grow(-1, 0); }

    std::string document(int node = 0) const {
        const Node& n = nodes_[static_cast<std::size_t>(node)];
        std::string text = "<" + n.name;
        for (const auto& [name, value] : n.attributes) text += " " + name + "=\"" + value + "\"";
        if (n.firstChild < 0 && !n.text) return text + "/>";
        text += ">";
        if (n.text) text += " text <!-- comment --> ";
        for (int child = n.firstChild; child >= 0; child = nodes_[static_cast<std::size_t>(child)].next)
            text += document(child);
        return text + "</" + n.name + ">";
    }

    /// Returns false if the walk takes too many steps to compare.
    bool collect() {
        cursor_ = 0;
        level(nodes_[0].name);
        return steps_ < 20000;
    }
    std::vector<JobDescription> jobs;

 private:
    void grow(int parent, int depth) {
        const int self = static_cast<int>(nodes_.size());
        nodes_.emplace_back();
        Node node;
        node.parent = parent;
        node.name = std::string(1, static_cast<char>('a' + random_() % 3));
        if (random_() % 3 != 0) node.attributes["k"] = std::to_string(self);
        node.text = random_() % 8 == 0;
        nodes_[static_cast<std::size_t>(self)] = node;
        const unsigned children = depth >= 5 ? 0 : static_cast<unsigned>(random_() % 4);
        int previous = -1;
        for (unsigned i = 0; i < children; ++i) {
            const int child = static_cast<int>(nodes_.size());
            grow(self, depth + 1);
            if (previous < 0) {
                nodes_[static_cast<std::size_t>(self)].firstChild = child;
            } else {
                nodes_[static_cast<std::size_t>(previous)].next = child;
            }
            previous = child;
        }
    }
    const Node& current() const { return nodes_[static_cast<std::size_t>(cursor_)]; }

    void level(const std::string& parentName) {
        JobDescription record;
        names_.clear();
        bool more = cursor_ >= 0;
        while (more && ++steps_ < 20000) {
            if (current().firstChild >= 0 || current().text) {
                const std::string name = current().name;
                saved_.push_back(cursor_);
                cursor_ = current().firstChild;
                level(name);
            } else {
                record.itemName = current().name;
                if (!current().attributes.empty()) record.items.push_back(current().attributes);
                names_.insert(current().name);
            }
            if (cursor_ >= 0) cursor_ = current().next;
            more = cursor_ >= 0;
        }
        if (!record.items.empty() && names_.size() <= 1) {
            record.name = parentName;
            jobs.push_back(record);
        }
        cursor_ = saved_.empty() ? -1 : saved_.back();
    }

    std::mt19937& random_;
    std::vector<Node> nodes_;
    int cursor_ = 0;
    std::vector<int> saved_;
    std::set<std::string> names_;
    int steps_ = 0;
};

TEST_F(ProvisioningFileParserTest, RandomTreesGiveTheSameJobsAsTheModel) {
    std::mt19937 random(20261120);
    int compared = 0;
    int withJobs = 0;
    for (int i = 0; i < 1500; ++i) {
        Model model(random);
        if (!model.collect()) continue;
        const std::string document = model.document();
        ASSERT_EQ(toText(jobsOf(document)), toText(model.jobs)) << document;
        ++compared;
        withJobs += model.jobs.empty() ? 0 : 1;
        phone_.log.forget();
    }
    EXPECT_GT(compared, 1000);
    EXPECT_GT(withJobs, 200);
}

class HostileFileTest : public ProvisioningFileParserTest {
 protected:
    /// `depth` nested elements with `tail` in the innermost one, so that each level walks `tail` again.
    static std::string nested(int depth, const std::string& tail) {
        std::string document;
        for (int i = 0; i < depth; ++i) document += "<p>";
        document += "<p><p/></p>" + tail;
        for (int i = 0; i < depth; ++i) document += "</p>";
        return document;
    }
    void expectNoJobs(const std::string& document) {
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_TRUE(jobsOf(document).empty());
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(60));
        EXPECT_TRUE(phone_.log.has(error(source,
                                         "File /tmp/nothing to decrypt lists more than 250000 items or is nested too "
                                         "heavily, none of its jobs will be started")))
            << phone_.log.text();
    }
};

TEST_F(HostileFileTest, RejectsMultipliedItems) {
    std::string tail;
    for (int i = 0; i < 5000; ++i) tail += "<p n=\"1\"/>";
    expectNoJobs(nested(200, tail));
}

TEST_F(HostileFileTest, RejectsMultipliedBytes) {
    std::string tail;
    for (int i = 0; i < 8; ++i) tail += "<p n=\"" + std::string(1 << 20, 'x') + "\"/>";
    expectNoJobs(nested(200, tail));
}

// Leaves without attributes do not count as items but are visited too.
TEST_F(HostileFileTest, RejectsMultipliedElementsWithoutAttributes) {
    std::string tail;
    for (int i = 0; i < 100000; ++i) tail += "<p/>";
    expectNoJobs(nested(200, tail));
}

TEST_F(HostileFileTest, AcceptsTheMaximumNumberOfItems) {
    std::string document = "<nvm>";
    for (std::size_t i = 0; i < zav::ProvisioningFileParser::maximumItems; ++i) document += "<param n=\"1\"/>";
    const auto jobs = jobsOf(document + "</nvm>");
    ASSERT_EQ(jobs.size(), 1U);
    EXPECT_EQ(jobs[0].items.size(), zav::ProvisioningFileParser::maximumItems);
    expectNoJobs(document + "<param n=\"1\"/></nvm>");
}

}  // namespace
