#include "operator/user.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "operator/failure.h"

namespace operator_tool {

namespace {

/// A group's number in the two calls that are older than POSIX: int on macOS, gid_t on Linux.
template <typename Group>
Group groupNumber(int (*)(const char*, Group, Group*, int*));
using Group = decltype(groupNumber(getgrouplist));

/// The groups that the user database gives to the user.
std::vector<Group> groupsOf(const std::string& name, Group first) {
    std::vector<Group> groups(16);
    int count = static_cast<int>(groups.size());
    while (getgrouplist(name.c_str(), first, groups.data(), &count) < 0) {
        groups.resize(groups.size() * 2);  // macOS does not say how many there are
        count = static_cast<int>(groups.size());
    }
    groups.resize(static_cast<std::size_t>(count));
    return groups;
}

/// Whether the process has no other groups than these. It may have less: macOS keeps 16 of them in
/// the kernel.
bool hasOnly(const std::vector<Group>& groups) {
    std::vector<gid_t> present(static_cast<std::size_t>(std::max(0, getgroups(0, nullptr))));
    const int count = getgroups(static_cast<int>(present.size()), present.data());
    if (count < 0) {
        return false;
    }
    present.resize(static_cast<std::size_t>(count));
    return std::all_of(present.begin(), present.end(), [&groups](gid_t group) {
        return std::find(groups.begin(), groups.end(), static_cast<Group>(group)) != groups.end();
    });
}

/// Whether root's group can be regained, as with the saved one, which macOS does not tell.
bool canRegainGroup(gid_t gid) {
    return gid != 0 && (setgid(0) == 0 || setegid(0) == 0);
}

/// As root: the groups first, since no other user may change them.
void dropTo(const std::string& name, uid_t uid, gid_t gid) {
    const auto group = static_cast<Group>(gid);
    if (initgroups(name.c_str(), group) != 0 || setgid(gid) != 0 || setuid(uid) != 0) {
        throw systemFailure("cannot become " + name);
    }
    const bool isWhole = getgid() == gid && getegid() == gid && hasOnly(groupsOf(name, group));
    if (!isWhole || canRegainGroup(gid)) {
        throw Failure(FAILED, "cannot become " + name + ": groups of the caller are left");
    }
}

}  // namespace

void becomeUser(const std::string& name) {
    const passwd* const entry = getpwnam(name.c_str());
    if (entry == nullptr) {
        throw Failure(FAILED, name + ": no such user");
    }
    const uid_t uid = entry->pw_uid;
    const gid_t gid = entry->pw_gid;
    if (uid == 0) {
        throw Failure(FAILED, name + ": root is not a user to become");
    }
    if (geteuid() == 0) {
        dropTo(name, uid, gid);
    }
    if (getuid() != uid || geteuid() != uid) {
        throw Failure(FAILED,
                      "cannot become " + name + ": the caller is neither root nor this user");
    }
    if (setuid(0) == 0 || seteuid(0) == 0) {
        throw Failure(FAILED, "cannot become " + name + ": root's rights could be regained");
    }
}

}  // namespace operator_tool
