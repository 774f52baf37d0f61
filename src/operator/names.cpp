#include "operator/names.h"

#include "operator/failure.h"

namespace operator_tool {

namespace {

/// With a slash at its end, the name of a link stands for the directory that the link leads to.
void requireName(const std::string& name) {
    if (name.ends_with('/')) {
        throw Failure(WRONG_CALL, name + ": a name must not end in a slash");
    }
}

}  // namespace

void renameOne(const std::string& from, const std::string& to) {
    requireName(from);
    requireName(to);
    if (renameWithoutReplacing(from.c_str(), to.c_str()) != 0) {
        throw systemFailure("cannot rename " + from + " to " + to);
    }
}

void exchange(const std::string& one, const std::string& other) {
    requireName(one);
    requireName(other);
    if (swapNames(one.c_str(), other.c_str()) != 0) {
        throw systemFailure("cannot exchange " + one + " and " + other);
    }
}

}  // namespace operator_tool
