// Included before every source of the mutated tree. The environment variable MUTANT chooses the mutant of this process;
// all others behave as the original.
#pragma once

#include <cstdlib>

namespace mutation {

inline bool on(int mutant) {
    static const char* const text = std::getenv("MUTANT");
    static const int chosen = text == nullptr ? -1 : std::atoi(text);
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
