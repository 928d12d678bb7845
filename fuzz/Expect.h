#pragma once

#include <cstdlib>

/// What a target is about: an input for which it does not hold is a find, like a crash.
inline void expect(bool holds)
{
    if (!holds)
        std::abort();
}
