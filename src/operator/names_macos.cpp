#include <cstdio>

#include "operator/names.h"

namespace operator_tool {

// APFS and HFS+ know both flags. Another file system answers ENOTSUP, and nothing has changed.
int renameWithoutReplacing(const char* from, const char* to) {
    return renamex_np(from, to, RENAME_EXCL);
}

int swapNames(const char* one, const char* other) {
    return renamex_np(one, other, RENAME_SWAP);
}

}  // namespace operator_tool
