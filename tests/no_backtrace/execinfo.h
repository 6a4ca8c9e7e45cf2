/// Stands before the header of that name in the tests of a C library without it.
#error "this C library has no backtrace"
