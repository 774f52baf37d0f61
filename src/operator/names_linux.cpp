#include <fcntl.h>

#include <cstdio>

#include "operator/names.h"

namespace operator_tool {

int renameWithoutReplacing(const char* from, const char* to) {
    return renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE);
}

int swapNames(const char* one, const char* other) {
    return renameat2(AT_FDCWD, one, AT_FDCWD, other, RENAME_EXCHANGE);
}

}  // namespace operator_tool
