#pragma once

#include <jni.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "jvm/jmethod.h"

namespace launcher {

/// Owns the process's one Java VM, from construction to destruction. Use it on the
/// constructing thread only: the registered classes are that thread's local references.
/// Java exceptions are never checked for.
class JVM {
public:
    /// Creates the VM. classPath is a complete option and comes first, before options. The VM gets
    /// copies, freed before the constructor returns. Throws std::runtime_error if the VM is not
    /// created, for example because of an option it does not recognise.
    JVM(const std::vector<std::string>& options, const std::string& classPath);

    /// Destroys the VM, which waits for every non-daemon Java thread. Never throws.
    ~JVM();

    JVM(const JVM&) = delete;
    JVM& operator=(const JVM&) = delete;

    /// Resolves the method and returns its registration identifier, below 2^32. Throws
    /// std::runtime_error if the class or its static method is not found. An identifier
    /// already taken keeps its first method, with a notice on standard output.
    std::uint64_t registerMethod(const JMethod& method);

    /// Attaches the thread, calls the method with args, byte for byte, as its String[], and
    /// detaches, which invalidates the registered classes: one call per JVM. A Java exception
    /// counts as a normal return. Throws std::runtime_error if id is not registered.
    void callJMethod(std::uint64_t id, const std::vector<std::string>& args);

    /// Attaches the calling thread; a failure is ignored.
    void attachCurrentThread();

    /// Detaches the calling thread; a failure is ignored.
    void detachCurrentThread();

private:
    class JArray;
    using RegisteredMethod = std::pair<jclass, jmethodID>;

    /// Returns null if the class is not found.
    jclass getClass(const std::string& className) const;
    /// Returns null if the static method is not found.
    jmethodID getClassMethodWithSignature(const jclass& parentClass, const JMethod& method) const;
    void callJavaMethod(const RegisteredMethod& method, const std::vector<std::string>& args);

    JavaVM* jvm;
    JNIEnv* env;  // of the thread attached last
    std::map<std::uint64_t, RegisteredMethod> registeredMethods;
};

}  // namespace launcher
