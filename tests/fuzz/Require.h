// What a fuzz target demands of the code under test.
#ifndef REPORT_EVENT_TESTS_FUZZ_REQUIRE_H
#define REPORT_EVENT_TESTS_FUZZ_REQUIRE_H

inline void Require(bool condition)
{
    if (!condition) {
        __builtin_trap();
    }
}

#endif  // REPORT_EVENT_TESTS_FUZZ_REQUIRE_H
