// Included before every source of the mutated tree. The environment variable MUTANT chooses the mutant of this process;
// all others behave as the original. MUTANTS_REACHED names a file in which the byte at a mutant's number is set as soon
// as its place is reached.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace mutation {

struct Reached {
    unsigned char* bytes = nullptr;
    long size = 0;
};

// Shared with the file, so that a process that is killed has recorded its places, too.
inline Reached openReached() {
    const char* const name = std::getenv("MUTANTS_REACHED");
    const int file = name == nullptr ? -1 : open(name, O_RDWR | O_CLOEXEC);
    struct stat status;
    if (file < 0 || fstat(file, &status) != 0) return {};
    void* const bytes = mmap(nullptr, status.st_size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    if (bytes == MAP_FAILED) return {};
    return {static_cast<unsigned char*>(bytes), static_cast<long>(status.st_size)};
}

inline bool on(int mutant) {
    static const char* const text = std::getenv("MUTANT");
    static const int chosen = text == nullptr ? -1 : std::atoi(text);
    static const Reached reached = openReached();
    if (mutant < reached.size) __atomic_store_n(reached.bytes + mutant, 1, __ATOMIC_RELAXED);
    return mutant == chosen;
}

inline int one(int mutant) { return on(mutant) ? 1 : 0; }

inline const char* text(int mutant, const char* original, const char* other) { return on(mutant) ? other : original; }

template <typename A, typename B>
bool less(int mutant, const A& a, const B& b) {
    return on(mutant) ? a <= b : a < b;
}
template <typename A, typename B>
bool lessOrEqual(int mutant, const A& a, const B& b) {
    return on(mutant) ? a < b : a <= b;
}
template <typename A, typename B>
bool greater(int mutant, const A& a, const B& b) {
    return on(mutant) ? a >= b : a > b;
}
template <typename A, typename B>
bool greaterOrEqual(int mutant, const A& a, const B& b) {
    return on(mutant) ? a > b : a >= b;
}
template <typename A, typename B>
bool equal(int mutant, const A& a, const B& b) {
    return on(mutant) ? a != b : a == b;
}
template <typename A, typename B>
bool notEqual(int mutant, const A& a, const B& b) {
    return on(mutant) ? a == b : a != b;
}

// Both operands are functions, because the second one may not be evaluated.
template <typename A, typename B>
bool both(int mutant, A a, B b) {
    return on(mutant) ? a() || b() : a() && b();
}
template <typename A, typename B>
bool either(int mutant, A a, B b) {
    return on(mutant) ? a() && b() : a() || b();
}

}  // namespace mutation
