#include "xml/Library.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "unit/Core/support/Phone.h"
#include "xml/XMLParser.h"

namespace {

// Readers are created and destroyed on several threads; libxml2's clean-up must wait for the last one.
TEST(LibraryTest, ReadersWorkOnSeveralThreads) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([i] {
            const std::string path = "/tmp/thread" + std::to_string(i);
            tests::writeFile(path, "<root number=\"" + std::to_string(i) + "\"><child/></root>");
            for (int n = 0; n < 50; ++n) {
                zav::XMLParser reader;
                ASSERT_TRUE(reader.load(path));
                EXPECT_EQ(reader.attributes()["number"], std::to_string(i));
                zav::XMLParser other;
                EXPECT_FALSE(other.load("/tmp/missing"));
            }
        });
    }
    for (auto& thread : threads) thread.join();
}

TEST(LibraryTest, HoldersMayOverlap) {
    auto first = std::make_unique<zav::xml::Library>();
    const zav::xml::Library second;
    first.reset();
    tests::writeFile("/tmp/overlap", "<root/>");
    zav::XMLParser reader;
    EXPECT_TRUE(reader.load("/tmp/overlap"));
}

}  // namespace
