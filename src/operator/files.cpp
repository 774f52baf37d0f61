#include "operator/files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "operator/failure.h"

namespace operator_tool {

namespace {

constexpr unsigned TRIES_PER_SECOND = 10;
constexpr unsigned MICROSECONDS = 1'000'000;

/// Opens a regular file that is no link, without waiting: O_NONBLOCK has no effect on such a file,
/// but opens a FIFO or device at once, which is then refused.
int openRegular(const std::string& path, int flags, mode_t mode, struct stat& found) {
    const int file =
        open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | flags, mode);
    if (file < 0 && errno == ELOOP) {
        throw Failure(FAILED, path + ": a symbolic link");
    }
    const bool isDirectory = file < 0 && errno == EISDIR;  // Linux does not open it for O_CREAT
    if (file < 0 && !isDirectory) {
        throw systemFailure(path);
    }
    if (!isDirectory && fstat(file, &found) != 0) {
        throw systemFailure(path);
    }
    if (isDirectory || !S_ISREG(found.st_mode)) {
        throw Failure(FAILED, path + ": not a regular file");
    }
    return file;
}

/// A file without a name is locked in vain: who comes later creates another. uninstall removes its
/// lock file while it holds the lock, and others wait for it.
bool hasName(const struct stat& file, const std::string& path) {
    struct stat named{};
    return lstat(path.c_str(), &named) == 0 && named.st_dev == file.st_dev &&
           named.st_ino == file.st_ino;
}

/// Opens and locks the file; -1 if that has to be tried again.
int tryLock(const std::string& path) {
    struct stat found{};
    const int file = openRegular(path, O_CREAT, S_IRUSR | S_IWUSR, found);
    if (found.st_uid != geteuid()) {
        throw Failure(FAILED, path + ": belongs to another user");
    }
    const bool locked = flock(file, LOCK_EX | LOCK_NB) == 0;
    if (!locked && errno != EWOULDBLOCK && errno != EINTR) {
        throw systemFailure(path);
    }
    if (locked && hasName(found, path)) {
        return file;
    }
    close(file);
    return -1;
}

}  // namespace

void print(const char* data, std::size_t size) {
    while (size != 0) {
        const ssize_t written = write(STDOUT_FILENO, data, size);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            throw systemFailure("standard output");
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
}

void printPart(const std::string& path, Part part, unsigned bytes) {
    struct stat found{};
    const int file = openRegular(path, O_CLOEXEC, 0, found);
    if (part == Part::LAST && found.st_size > bytes &&
        lseek(file, found.st_size - bytes, SEEK_SET) < 0) {
        throw systemFailure(path);
    }
    std::array<char, 65536> buffer{};
    while (bytes != 0) {
        const ssize_t got = read(file, buffer.data(), std::min<std::size_t>(bytes, buffer.size()));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            throw systemFailure(path);
        }
        if (got == 0) {
            break;
        }
        print(buffer.data(), static_cast<std::size_t>(got));
        bytes -= static_cast<unsigned>(got);
    }
    close(file);
}

void takeLock(const std::string& path, unsigned seconds) {
    int file = tryLock(path);
    for (unsigned tries = seconds * TRIES_PER_SECOND; file < 0 && tries != 0; --tries) {
        usleep(MICROSECONDS / TRIES_PER_SECOND);
        file = tryLock(path);
    }
    if (file < 0) {
        throw Failure(LIMIT_REACHED, path + ": locked by another process");
    }
    if (file != LOCK_DESCRIPTOR) {
        if (dup2(file, LOCK_DESCRIPTOR) < 0) {
            throw systemFailure(path);
        }
        close(file);
    }
}

}  // namespace operator_tool
