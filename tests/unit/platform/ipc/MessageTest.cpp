#include "Mqtt.h"

#include <gtest/gtest.h>

#include <string>

#include "ipc/IPCException.h"

namespace {

using ipc::IPCException;
using ipc::Message;

std::string levels(int count) {
    std::string topic = "t";
    for (int level = 1; level < count; ++level) topic += "/t";
    return topic;
}

TEST(Message, MayHaveAnyTopicThatMqttAllows) {
    for (const std::string& topic : {std::string("a"), std::string("/"), std::string("a b/ü"), levels(201)}) {
        EXPECT_NO_THROW(ipc::requirePublishable({topic, "", 0, {}, {}})) << topic;
    }
}

TEST(Message, RefusesInvalidTopics) {
    for (const std::string& topic : {std::string(), std::string("a/#"), std::string("+"), std::string("a\0b", 3),
                                     std::string("\xff"), levels(202)}) {
        EXPECT_THROW(ipc::requirePublishable({topic, "", 0, {}, {}}), IPCException) << topic;
    }
}

TEST(Message, LimitsItsSize) {
    const std::string largest(ipc::maxPacket, 'x');
    EXPECT_NO_THROW(ipc::requirePublishable({"t", largest, 0, {}, std::string(65535, 'x')}));
    EXPECT_THROW(ipc::requirePublishable({"t", largest + "x", 0, {}, {}}), IPCException);
    EXPECT_THROW(ipc::requirePublishable({"t", "", 0, {}, std::string(65536, 'x')}), IPCException);
    EXPECT_THROW(ipc::requirePublishable({"t", "", 0, std::string("a\0b", 3), {}}), IPCException);
}

TEST(Message, SizeCountsAllFields) {
    EXPECT_EQ(ipc::sizeOf(Message{"t", "payload", 1, "answer", "id"}), 1U + 7U + 6U + 2U);
}

TEST(Filter, RefusesInvalidFilters) {
    for (const char* filter : {"a", "#", "a/+/b", "+/#"}) EXPECT_NO_THROW(ipc::requireFilter(filter)) << filter;
    for (const std::string& filter : {std::string(), std::string("a#"), std::string("#/a"), std::string("a+/b"),
                                      std::string("a\0b", 3), std::string("\xff")}) {
        EXPECT_THROW(ipc::requireFilter(filter), IPCException) << filter;
    }
}

}  // namespace
