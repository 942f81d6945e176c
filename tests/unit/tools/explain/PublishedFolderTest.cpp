#include "explain/PublishedFolder.h"

#include "ExplainFixture.h"

namespace explain {
namespace {

class PublishedFolderTest : public ExplainTest {
 protected:
    PublishedFolderTest() {
        publish("provisioning.xml", "initial");
        publish("sub/a file+.xml", "other");
    }

    const zav::UrlInfo initial{server + "provisioning.xml"};

    long status(const std::string& url) const { return PublishedFolder(folder, initial, initial).answer(url).status; }
};

TEST_F(PublishedFolderTest, AnswersUrlsBelowTheServersFolder) {
    EXPECT_EQ(status(server + "provisioning.xml"), 200);
    EXPECT_EQ(status(server + "provisioning.xml?query=1"), 200);
    EXPECT_EQ(status("https://SERVER.example:443/phones/provisioning.xml"), 200);
    EXPECT_EQ(status(server + "sub/a%20file+.xml"), 200);
}

TEST_F(PublishedFolderTest, NothingElseIsPublished) {
    EXPECT_EQ(status(server + "missing.xml"), 404);
    EXPECT_EQ(status(server + "sub"), 404);
    EXPECT_EQ(status("https://server.example/provisioning.xml"), 404);
    EXPECT_EQ(status("https://server.example/phones2/provisioning.xml"), 404);
    EXPECT_EQ(status("http://server.example/phones/provisioning.xml"), 404);
    EXPECT_EQ(status("https://server.example:8443/phones/provisioning.xml"), 404);
    EXPECT_EQ(status("https://other.example/phones/provisioning.xml"), 404);
}

TEST_F(PublishedFolderTest, EscapesDoNotLeaveTheFolder) {
    publish("../published-outside.xml", "outside");
    EXPECT_EQ(status(server + "..%2fpublished-outside.xml"), 404);
    EXPECT_EQ(status(server + "sub/%2e%2e%2f%2e%2e%2fpublished-outside.xml"), 404);
    EXPECT_EQ(status(server + "provisioning.xml%00"), 404);
    EXPECT_EQ(status(server + "100%"), 404);
    std::filesystem::remove(folder + "/../published-outside.xml");
}

TEST_F(PublishedFolderTest, FileStandsForTheInitialFileAndItsFolderForTheRest) {
    publish("draft.xml", "draft");
    const PublishedFolder published(folder + "/draft.xml", initial, initial);
    EXPECT_EQ(published.answer(server + "provisioning.xml").file, folder + "/draft.xml");
    EXPECT_EQ(published.answer(server + "sub/a%20file+.xml").file, folder + "/sub/a file+.xml");
}

TEST_F(PublishedFolderTest, FileInThePhonesFolderHasTheFolderAbove) {
    publish("02-00/provisioning.xml", "the phone's");
    const zav::UrlInfo own(server + "02-00/provisioning.xml");
    const PublishedFolder above(folder + "/02-00/provisioning.xml", own, zav::UrlInfo(server));
    EXPECT_EQ(above.folder(), folder + "/");
    EXPECT_EQ(above.url(), server);
    EXPECT_EQ(above.answer(server + "sub/a%20file+.xml").file, folder + "/sub/a file+.xml");
    const PublishedFolder elsewhere(folder + "/sub/a file+.xml", own, zav::UrlInfo(server));
    EXPECT_EQ(elsewhere.url(), server + "02-00/");
    EXPECT_EQ(elsewhere.answer(own.text()).file, folder + "/sub/a file+.xml");
}

TEST_F(PublishedFolderTest, TellsOtherServers) {
    const PublishedFolder published(folder, initial, initial);
    EXPECT_TRUE(published.isElsewhere("https://other.example/x"));
    EXPECT_FALSE(published.isElsewhere("https://server.example/x"));
}

}  // namespace
}  // namespace explain
