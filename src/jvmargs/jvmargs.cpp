#include "jvmargs/jvmargs.h"

#include <array>
#include <cstdint>

#include "jvmargs/executable_path.h"

namespace launcher {

namespace {

constexpr const char* SERVICE_CONTENTS =
    "/Applications/Orvane.app/Contents/Library/LaunchServices/OrvaneService.app/Contents";
constexpr const char* DATA_DIR = "/Library/Application Support/Quillrest";

/// systemPath itself, or its counterpart in the home directory of a per-user run.
std::string installPath(bool isSystemInstall, const std::string& systemPath) {
    return isSystemInstall ? systemPath : getUserSpecificPath("/Users/", systemPath, "/");
}

}  // namespace

std::string getExeDir() {
    std::array<char, 1024> buffer{};
    std::uint32_t size = buffer.size();
    // The result is ignored: a path that does not fit leaves the buffer zeroed, and the empty
    // directory is what the header promises then.
    getExecutablePath(buffer.data(), &size);
    const std::string path = buffer.data();
    return path.substr(0, path.find_last_of("/\\"));
}

std::string getUserSpecificPath(const std::string& root, const std::string& suffix,
                                const std::string& separators) {
    const std::string exeDir = getExeDir();
    // Without root, npos + size() wraps around to size() - 1, on purpose: see
    // docs/decisions/executable-path.md.
    const std::string rest = exeDir.substr(exeDir.find(root) + root.size());
    return root + rest.substr(0, rest.find_first_of(separators)) + suffix;
}

std::string getJVMArgsFilePath(bool isSystemInstall) {
    return installPath(isSystemInstall, std::string(DATA_DIR) + "/conf/jvm_args");
}

std::vector<std::string> getDefaultJVMArgs(bool isSystemInstall) {
    const std::string contents = installPath(isSystemInstall, SERVICE_CONTENTS);
    const std::string data = installPath(isSystemInstall, DATA_DIR);
    return {
        "-Dsun.jnu.encoding=UTF-8",
        "-Dfile.encoding=UTF-8",
        "-Dsun.net.inetaddr.ttl=300",
        "-Dnetworkaddress.cache.ttl=300",
        "-Dsun.net.inetaddr.negative.ttl=0",
        "-Dnetworkaddress.cache.negative.ttl=0",
        "-Dapp=OrvaneService",
        "-DappBaseName=Orvane",
        "-Djna.nosys=true",
        "-Djava.awt.headless=true",
        "-DOrvane=Orvane",
        "-Dnashorn.args=--no-deprecation-warning",
        "-Dorv.installation.enforcement.enabled=true",
        "-XX:-ShrinkHeapInSteps",
        "-XX:MaxHeapFreeRatio=30",
        "-XX:MinHeapFreeRatio=15",
        "-Xmn10m",
        "-Dorv.log.config=" + contents + "/Resources/conf/service.log.xml",
        "-Dorv.service.bin.path=" + contents + "/Resources/bin",
        "-Djava.library.path=" + contents + "/Frameworks",
        "-Djna.library.path=" + contents + "/Frameworks",
        "-Dorv.config.defaultPath=" + contents + "/Resources/conf",
        "-Dorv.service.upgrade.path=" + data + "/upgrade",
    };
}

}  // namespace launcher
