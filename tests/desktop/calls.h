/// Overhearing calls: a test program that defines a library's function under its own name is called in the library's place, notes the
/// call, and passes it on to the function that next() finds.
#pragma once

#include <dlfcn.h>

template <typename Function>
Function* next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

/// Whether a return address lies in the program itself, and not in a library: GTK calls its own functions as well.
inline bool is_own_code(void* return_address)
{
    Dl_info caller{};
    Dl_info program{};
    static const char here = 0;
    return dladdr(return_address, &caller) != 0 && dladdr(&here, &program) != 0 && caller.dli_fbase == program.dli_fbase;
}
