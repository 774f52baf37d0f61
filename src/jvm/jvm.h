#pragma once

#include <jni.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "jvm/jmethod.h"

namespace launcher {

/// Owns the one Java VM of the process, from construction to destruction. All of it is
/// for the constructing thread alone: the registered classes are that thread's local
/// references. Java exceptions are never looked for.
class JVM {
public:
    /// Creates the VM; classPath, a whole option, goes ahead of options. Both are copied,
    /// and the copies are gone on return. std::runtime_error if the VM refuses, an
    /// unrecognised option included.
    JVM(const std::vector<std::string>& options, const std::string& classPath);

    /// Destroys the VM, which waits for every non-daemon Java thread. Never throws.
    ~JVM();

    JVM(const JVM&) = delete;
    JVM& operator=(const JVM&) = delete;

    /// Resolves the method and returns the identifier to call it by, below 2^32.
    /// std::runtime_error if the class, or in it the static method, is not found. An
    /// identifier already taken is reported on standard output and keeps its first method.
    std::uint64_t registerMethod(const JMethod& method);

    /// Attaches the thread, calls the method with the arguments as its String[], byte for
    /// byte, waits for it to return and detaches, which ends what is registered: one call a
    /// JVM. A Java exception that leaves the method goes unnoticed. std::runtime_error if id
    /// is not registered.
    void callJMethod(std::uint64_t id, const std::vector<std::string>& args);

    /// Attaches the calling thread; the result is ignored.
    void attachCurrentThread();

    /// Detaches the calling thread; the result is ignored.
    void detachCurrentThread();

private:
    class JArray;
    using RegisteredMethod = std::pair<jclass, jmethodID>;

    /// Null if not found, here and below.
    jclass getClass(const std::string& className) const;
    jmethodID getClassMethodWithSignature(const jclass& parentClass, const JMethod& method) const;
    void callJavaMethod(const RegisteredMethod& method, const std::vector<std::string>& args);

    JavaVM* jvm;
    JNIEnv* env;
    std::map<std::uint64_t, RegisteredMethod> registeredMethods;
};

}  // namespace launcher
