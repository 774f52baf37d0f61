#pragma once

#include <cstdint>
#include <string>

namespace launcher {

/// Names a static Java method in the JNI's forms: a class name with slashes, a method name
/// and a descriptor such as "([Ljava/lang/String;)V".
struct JMethod {
    std::string className;
    std::string methodName;
    std::string signature;

    /// Returns the registration identifier: the same for the same text within one process.
    /// Different methods can share one.
    std::uint32_t getHash() const;
};

}  // namespace launcher
