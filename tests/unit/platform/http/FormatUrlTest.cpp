#include "http/FormatUrl.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fakes/FakeProperties.h"

namespace {

using Names = std::vector<std::string>;

class FormatUrl : public testing::Test {
 protected:
    std::string format(const std::string& text) const { return zav::formatUrl(text, properties); }

    std::shared_ptr<fakes::FakeProperties> properties = std::make_shared<fakes::FakeProperties>(
        fakes::FakeProperties::Values{{"NET.MAC.Address", "00:1A:2b:3C:4D:5E"}, {"System.General.DeviceID", "kd4v"}});
};

TEST_F(FormatUrl, ExpandsEachPlaceholder) {
    EXPECT_EQ(format("http://h/%MACC.xml"), "http://h/00:1A:2b:3C:4D:5E.xml");
    EXPECT_EQ(format("http://h/%MACD.xml"), "http://h/00-1A-2b-3C-4D-5E.xml");
    EXPECT_EQ(format("/var/%DVID/%MACD%DVID"), "/var/kd4v/00-1A-2b-3C-4D-5Ekd4v");
}

TEST_F(FormatUrl, LeavesOtherTextUnchanged) {
    for (const std::string text : {"", "%", "%%", "100%", "%MAC", "%macc", "%MACX", "a%20b%2f", "%DVI"}) {
        EXPECT_EQ(format(text), text);
    }
    EXPECT_EQ(format("%%DVID%"), "%kd4v%");
}

TEST_F(FormatUrl, ReadsAPropertyOnlyIfItsPlaceholderOccurs) {
    format("http://h/plain.xml");
    EXPECT_EQ(properties->reads(), Names{});
    format("%DVID");
    EXPECT_EQ(properties->reads(), Names{"System.General.DeviceID"});
    properties->forgetCalls();
    format("%MACC");
    EXPECT_EQ(properties->reads(), Names{"NET.MAC.Address"});
}

TEST_F(FormatUrl, ExpandsOnce) {
    properties->put("System.General.DeviceID", "%MACC");
    EXPECT_EQ(format("%DVID"), "MACC");
}

TEST_F(FormatUrl, RemovesUnsafeCharactersFromValues) {
    properties->put("System.General.DeviceID", "a/../b;$(id)\n'\"?#%20_:.-Z9");
    EXPECT_EQ(format("%DVID"), "a..bid20_:.-Z9");
    properties->put("NET.MAC.Address", "a/b;c");
    EXPECT_EQ(format("%MACC"), "abc");
}

TEST_F(FormatUrl, AcceptsAnyMacAddressFormat) {
    for (const std::string stored : {"001A2b3C4D5E", "00-1A-2b-3C-4D-5E", "001A.2b3C.4D5E", "00:1A:2b:3C:4D:5E"}) {
        properties->put("NET.MAC.Address", stored);
        EXPECT_EQ(format("%MACC %MACD"), "00:1A:2b:3C:4D:5E 00-1A-2b-3C-4D-5E") << stored;
    }
    properties->put("NET.MAC.Address", "");
    EXPECT_EQ(format("<%MACC>"), "<>");
    properties->put("NET.MAC.Address", "no-address");
    EXPECT_EQ(format("%MACC"), "no:address");
}

TEST_F(FormatUrl, ThrowsIfAPropertyCannotBeRead) {
    properties->failKey("NET.MAC.Address");
    EXPECT_THROW(format("%MACD"), propertyapi::PropertyOfflineException);
    EXPECT_NO_THROW(format("%DVID"));
    const auto none = std::make_shared<fakes::FakeProperties>();
    EXPECT_THROW(zav::formatUrl("%DVID", none), propertyapi::PropertyNotFoundException);
}

}  // namespace
