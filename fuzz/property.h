/// What the fuzz targets share: a home folder and a machine of their own, and how to say that something that must hold doesn't.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>

#include "fake_machine.h"

/// What libFuzzer calls, again and again, each time with other bytes.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// The home folder of this process; below TMPDIR, which is best in memory.
inline const TemporaryHome& fuzz_home()
{
    static const TemporaryHome home;
    return home;
}

/// The kernel files of this process.
inline FakeMachine& fuzz_machine()
{
    static FakeMachine machine;
    return machine;
}

/// Ends the process, which is how libFuzzer learns of a finding, unless both are the same.
template <typename T>
void require_equal(const T& expected, const T& found, const char* what)
{
    if (!(expected == found)) {
        std::cerr << "NOT TRUE: " << what << "\nexpected: " << expected << "\nfound:    " << found << std::endl;
        std::abort();
    }
}

inline void require(bool holds, const char* what)
{
    require_equal(true, holds, what);
}
