#pragma once

#include <cstdlib>
#include <exception>

/// What a call of std::exit becomes in a source file that this header is forced into: an
/// error that its caller can catch, everything on the way destroyed.
struct Exited {
    int status;
};

#define exit(status) rethrow_exception(std::make_exception_ptr(Exited{status}))
