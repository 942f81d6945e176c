#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <new>
#include <string>

#include "unit/Core/support/Phone.h"
#include "xml/XMLParser.h"

namespace {

constexpr std::size_t nothing = std::numeric_limits<std::size_t>::max();
thread_local std::size_t failingFrom = nothing;  // allocations of so many bytes, and more, fail

}  // namespace

// Not inlined: the compiler would see "new" beside "free".
[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const memory = size >= failingFrom ? nullptr : std::malloc(size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}
[[gnu::noinline]] void* operator new(std::size_t size, std::align_val_t alignment) {
    const auto unit = static_cast<std::size_t>(alignment);
    void* const memory = size >= failingFrom ? nullptr : std::aligned_alloc(unit, (size + unit - 1) / unit * unit);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}
[[gnu::noinline]] void operator delete(void* memory, std::align_val_t) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

// The parser's message has the name, and nothing else that is allocated for such a document is as long.
TEST(LackOfMemory, DoesNotPassThroughTheParsersCallback) {
    constexpr std::size_t length = 2000;
    const std::string name(length, 'n');
    tests::writeFile("/tmp/document", "<" + name + "></other>");
    zav::XMLParser reader;
    const std::string path = "/tmp/document";
    failingFrom = length;
    bool thrown = false;
    bool loaded = true;
    try {
        loaded = reader.load(path);
    } catch (const std::bad_alloc&) {
        thrown = true;
    }
    failingFrom = nothing;
    EXPECT_FALSE(thrown);
    EXPECT_FALSE(loaded);
    EXPECT_EQ(reader.failure().message, "");
    EXPECT_FALSE(reader.load(path));
    EXPECT_GT(reader.failure().message.size(), length);
}

// Nothing else is allocated with "new" for such a document that is as long as the value.
TEST(LackOfMemory, IsThrownToTheCallerWithoutADocument) {
    constexpr std::size_t length = 20000;
    const std::string path = "/tmp/document";
    tests::writeFile(path, "<root><a b=\"" + std::string(length, 'v') + "\"/><c/></root>");
    zav::XMLParser reader;
    failingFrom = length;
    bool thrown = false;
    try {
        reader.load(path);
    } catch (const std::bad_alloc&) {
        thrown = true;
    }
    failingFrom = nothing;
    EXPECT_TRUE(thrown);
    EXPECT_EQ(reader.name(), "");
    ASSERT_TRUE(reader.load(path));
    ASSERT_TRUE(reader.firstChild());
    EXPECT_EQ(reader.attributes()["b"].size(), length);
}

}  // namespace
