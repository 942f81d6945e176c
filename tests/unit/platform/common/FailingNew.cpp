// A source of its own: a compiler that sees one of these functions but not the other takes them for mismatched.
#include "FailingNew.h"

#include <cstddef>
#include <cstdlib>
#include <new>

long allocationsLeft = -1;

void* operator new(std::size_t size) {
    if (allocationsLeft == 0) {
        allocationsLeft = -1;
        throw std::bad_alloc();
    }
    if (allocationsLeft > 0) --allocationsLeft;
    void* const block = std::malloc(size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
