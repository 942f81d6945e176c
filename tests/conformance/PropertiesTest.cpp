// What the property client reads and writes, and which exception names which refusal.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Bus.h"
#include "BusFixtures.h"
#include "PropertyService.h"
#include "Settings.h"
#include "propertyprotocol/Json.h"
#include "propertyprotocol/Topics.h"

namespace {

using namespace bustest;
using conformance::settings;
using namespace propertyapi;

/// The changes in the order of their arrival, as "VALUE by SOURCE".
class ChangeRecorder : public Recorder {
 public:
    std::vector<std::string> changes() {
        std::vector<std::string> all;
        for (const std::string& content : contents()) {
            propertyprotocol::Change change;
            const bool isChange = propertyprotocol::readChange(content, change);
            all.push_back(isChange ? change.value + " by " + change.source : "not a change: " + content);
        }
        return all;
    }
};

class Properties : public testing::Test {
 protected:
    void SetUp() override {
        if (settings().startService.empty()) GTEST_SKIP() << "needs a property service: --start-service";
        bus_ = std::make_unique<conformance::Bus>();
        service_ = std::make_unique<conformance::PropertyService>();
    }

    IPropertyApi& properties() { return service_->properties(); }
    ipc::IIPCClient& client() { return service_->client(); }

    const std::string text = settings().textKey;
    ChangeRecorder recorder;  // of every check that subscribes: it must outlive the client

 private:
    std::unique_ptr<conformance::Bus> bus_;
    std::unique_ptr<conformance::PropertyService> service_;
};
using Changes = Properties;
using PropertyErrors = Properties;

TEST_F(Properties, ReadBackWhatWasSet) {
    std::string controls;
    for (char byte = 1; byte < 127; ++byte) controls += byte;
    for (const std::string& value : {std::string("plain"), std::string(), controls,
                                     std::string("gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x93\x9e \"\\/\n")}) {
        properties().set(text, value);
        EXPECT_EQ(properties().get(text), value);
    }
}

TEST_F(Properties, SeveralAreReadInOneCall) {
    properties().set(text, "value");
    const auto readings = properties().getEach({text, "No.Such.Key", text});
    ASSERT_EQ(readings.size(), 3U);
    EXPECT_EQ(readings[0].value(), "value");
    EXPECT_THROW(readings[1].value(), PropertyNotFoundException);
    EXPECT_EQ(readings[2].value(), "value");
}

TEST_F(Properties, ValuesHave64KiBAtMost) {
    const std::string longest(65536, '"');  // as JSON, each byte becomes two
    properties().set(text, longest);
    EXPECT_TRUE(properties().get(text) == longest);
    EXPECT_THROW(properties().set(text, longest + "x"), PropertyInvalidValueException);
    EXPECT_TRUE(properties().get(text) == longest);
}

TEST_F(Properties, ListsAreCompleteSortedPages) {
    std::vector<Property> all;
    std::string after;
    do {
        const PropertyPage page = properties().list("", after);
        ASSERT_LE(page.properties.size(), 1000U);
        ASSERT_TRUE(page.next.empty() || !page.properties.empty());
        all.insert(all.end(), page.properties.begin(), page.properties.end());
        after = page.next;
    } while (!after.empty());
    bool found = false;
    for (std::size_t i = 0; i < all.size(); ++i) {
        if (i > 0) {
            EXPECT_LT(all[i - 1].key, all[i].key);
        }
        found = found || all[i].key == text;
    }
    EXPECT_TRUE(found) << text;
}

TEST_F(Properties, ListsBeginWithThePrefixAndAfterTheKey) {
    properties().set(text, "listed");
    const std::string group = text.substr(0, text.find('.') + 1);
    const PropertyPage page = properties().list(group, "");
    ASSERT_FALSE(page.properties.empty());
    for (const Property& each : page.properties) EXPECT_EQ(each.key.rfind(group, 0), 0U) << each.key;
    const PropertyPage exact = properties().list(text, "");
    ASSERT_FALSE(exact.properties.empty());
    EXPECT_EQ(exact.properties[0].key, text);
    EXPECT_EQ(exact.properties[0].value, "listed");
    for (const Property& each : properties().list(group, text).properties) EXPECT_GT(each.key, text);
    EXPECT_TRUE(properties().list("No.Such.Group.", "").properties.empty());
}

TEST_F(Properties, MayBeUsedByManyThreads) {
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    properties().set(text, "shared");
    for (int thread = 0; thread < 8; ++thread) {
        threads.emplace_back([&] {
            for (int i = 0; i < 25; ++i) {
                try {
                    if (properties().get(text) != "shared") ++wrong;
                    if (properties().list(text, "").properties.empty()) ++wrong;
                } catch (const PropertyException&) {
                    ++wrong;
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

TEST_F(Changes, HaveTheKeyTheValueAndTheWriter) {
    client().subscribe(propertyprotocol::changeTopic(text), recorder);
    properties().set(text, "mine");
    properties().set(text, "provisioning", "theirs");
    properties().set(text, "provisioning", "theirs");  // without a difference: an event all the same
    ASSERT_TRUE(recorder.waitForMessages(3));
    EXPECT_EQ(recorder.changes(),
              (std::vector<std::string>{"mine by conformance", "theirs by provisioning", "theirs by provisioning"}));
    propertyprotocol::Change change;
    ASSERT_TRUE(propertyprotocol::readChange(recorder.contents()[0], change));
    EXPECT_EQ(change.param, text);
}

TEST_F(Changes, AreInTheOrderOfTheSets) {
    client().subscribe(propertyprotocol::changeTopic(text), recorder);
    std::vector<std::string> expected;
    for (int i = 0; i < 200; ++i) {
        properties().set(text, std::to_string(i));
        expected.push_back(std::to_string(i) + " by conformance");
    }
    ASSERT_TRUE(recorder.waitForMessages(expected.size()));
    EXPECT_EQ(recorder.changes(), expected);
}

TEST_F(Changes, AreNotPublishedForARefusedSet) {
    client().subscribe("#", recorder);
    EXPECT_THROW(properties().set(settings().numberKey, "loud"), PropertyException);
    properties().set(text, "end");
    EXPECT_TRUE(eventually([&] {
        const auto all = recorder.changes();
        return std::find(all.begin(), all.end(), "end by conformance") != all.end();
    }));
    for (const auto& [topic, content] : recorder.messages()) {
        EXPECT_NE(topic, propertyprotocol::changeTopic(settings().numberKey)) << content;
    }
}

TEST_F(Changes, HandlerMayCallThePropertyService) {
    Gate gate;
    std::string seen;
    recorder.onMessage = [&](const std::string&, const std::string&) {
        seen = properties().get(text);
        gate.open();
    };
    client().subscribe(propertyprotocol::changeTopic(text), recorder);
    properties().set(text, "seen");
    EXPECT_TRUE(gate.pass());
    client().disconnect();
    EXPECT_EQ(seen, "seen");
}

/// Expects exactly this exception, with the key in its text.
template <typename Exception, typename Call>
void expectRefusal(const std::string& key, Call call) {
    try {
        call();
        ADD_FAILURE() << key << " was not refused";
    } catch (const Exception& error) {
        EXPECT_EQ(typeid(error), typeid(Exception));
        EXPECT_NE(std::string(error.what()).find(key), std::string::npos) << error.what();
    } catch (const PropertyException& error) {
        ADD_FAILURE() << "another exception: " << error.what();
    }
}

TEST_F(PropertyErrors, UnknownKeysAreNotFound) {
    for (const std::string& key : {std::string("No.Such.Key"), std::string(300, 'K').insert(0, "No.")}) {
        const std::string shown = key.substr(0, 255);
        expectRefusal<PropertyNotFoundException>(shown, [&] { properties().get(key); });
        expectRefusal<PropertyNotFoundException>(shown, [&] { properties().set(key, "x"); });
    }
    EXPECT_THROW(properties().get("\xff"), PropertyNotFoundException);
    EXPECT_THROW(properties().get(""), PropertyNotFoundException);
}

TEST_F(PropertyErrors, RefusedValueIsInvalidAndNotWritten) {
    const std::string key = settings().numberKey;
    const std::string before = properties().get(key);
    expectRefusal<PropertyInvalidValueException>(key, [&] { properties().set(key, "loud"); });
    EXPECT_EQ(properties().get(key), before);
}

TEST_F(PropertyErrors, TextThatIsNotUtf8IsInvalid) {
    properties().set(text, "before");
    for (const char* value : {"\xff", "\xc0\x80", "\xed\xa0\x80", "\xe2\x82"}) {
        expectRefusal<PropertyInvalidValueException>(text, [&] { properties().set(text, value); });
    }
    EXPECT_EQ(properties().get(text), "before");
}

TEST_F(PropertyErrors, RefusedSourceIsReadOnly) {
    const std::string key = settings().guardedKey;
    const std::string before = properties().get(key);
    expectRefusal<PropertyReadOnlyException>(key, [&] { properties().set(key, "provisioning", "request"); });
    EXPECT_EQ(properties().get(key), before);
}

}  // namespace
