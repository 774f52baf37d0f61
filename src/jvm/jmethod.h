#pragma once

#include <cstdint>
#include <string>

namespace launcher {

/// A static Java method by name, in the forms the JNI uses: a class with slashes, and a
/// method descriptor such as "([Ljava/lang/String;)V".
struct JMethod {
    std::string className;
    std::string methodName;
    std::string signature;

    /// The method's registration identifier: equal for equal texts within one process,
    /// and possibly equal for different ones.
    std::uint32_t getHash() const;
};

}  // namespace launcher
