#include "jvm/jmethod.h"

#include <functional>

namespace launcher {

std::uint32_t JMethod::getHash() const {
    return static_cast<std::uint32_t>(std::hash<std::string>{}(className + methodName + signature));
}

}  // namespace launcher
