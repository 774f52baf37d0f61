#include "jvm/jvm.h"

#include <iostream>
#include <sstream>
#include <stdexcept>

namespace launcher {

namespace {

/// The argument of JNI_CreateJavaVM, with copies of all strings it points to.
class JVMInitArgs {
public:
    JVMInitArgs(const std::vector<std::string>& options, const std::string& classPath)
        : jvmOptions(options, classPath) {
        rawArgs.version = JNI_VERSION_1_8;
        rawArgs.nOptions = static_cast<jint>(jvmOptions.getRawOptions().size());
        // The JNI's declarations have no const, here and for JNI_CreateJavaVM; the VM only reads.
        rawArgs.options = const_cast<JavaVMOption*>(jvmOptions.getRawOptions().data());
        rawArgs.ignoreUnrecognized = JNI_FALSE;
    }

    JVMInitArgs(const JVMInitArgs&) = delete;
    JVMInitArgs& operator=(const JVMInitArgs&) = delete;

    const JavaVMInitArgs* getRawArgs() const { return &rawArgs; }

private:
    /// The option strings, and the records that point into them, class path first.
    class JVMOptions {
    public:
        JVMOptions(std::vector<std::string> optionList, std::string classPathOption)
            : classPath(std::move(classPathOption)), options(std::move(optionList)) {
            rawOptions.reserve(options.size() + 1);
            rawOptions.push_back({classPath.data(), nullptr});
            for (std::string& option : options) {
                rawOptions.push_back({option.data(), nullptr});
            }
        }

        JVMOptions(const JVMOptions&) = delete;
        JVMOptions& operator=(const JVMOptions&) = delete;

        const std::vector<JavaVMOption>& getRawOptions() const { return rawOptions; }

    private:
        std::string classPath;
        std::vector<std::string> options;
        std::vector<JavaVMOption> rawOptions;
    };

    JVMOptions jvmOptions;
    JavaVMInitArgs rawArgs;
};

}  // namespace

/// Owns the local reference to one Java String[] and deletes it on destruction. The references
/// to its elements are left to the VM.
class JVM::JArray {
public:
    JArray(const std::vector<std::string>& list, const jclass& elementClass, JNIEnv* jniEnv)
        : env(jniEnv) {
        const auto length = static_cast<jsize>(list.size());
        const jstring empty = env->NewStringUTF("");
        array = env->NewObjectArray(length, elementClass, empty);
        for (jsize i = 0; i < length; ++i) {
            const jstring element = env->NewStringUTF(list[static_cast<std::size_t>(i)].c_str());
            env->SetObjectArrayElement(array, i, element);
        }
    }

    ~JArray() { env->DeleteLocalRef(array); }

    JArray(const JArray&) = delete;
    JArray& operator=(const JArray&) = delete;

    const jobjectArray& get() const { return array; }

private:
    JNIEnv* env;
    jobjectArray array;
};

JVM::JVM(const std::vector<std::string>& options, const std::string& classPath) {
    const JVMInitArgs initArgs(options, classPath);
    const std::int64_t status = JNI_CreateJavaVM(
        &jvm, reinterpret_cast<void**>(&env), const_cast<JavaVMInitArgs*>(initArgs.getRawArgs()));
    if (status != JNI_OK) {
        throw std::runtime_error("Error creating JVM: " + std::to_string(status));
    }
}

JVM::~JVM() {
    jvm->DestroyJavaVM();
}

void JVM::attachCurrentThread() {
    jvm->AttachCurrentThread(reinterpret_cast<void**>(&env), nullptr);
}

void JVM::detachCurrentThread() {
    jvm->DetachCurrentThread();
}

std::uint64_t JVM::registerMethod(const JMethod& method) {
    const jclass parentClass = getClass(method.className);
    if (parentClass == nullptr) {
        throw std::runtime_error("Class Error. Couldn't find parent class '" + method.className +
                                 "'");
    }
    const jmethodID methodId = getClassMethodWithSignature(parentClass, method);
    if (methodId == nullptr) {
        throw std::runtime_error("Couldn't find method '" + method.methodName +
                                 "' with proper signature of '" + method.signature + "'");
    }
    const std::uint64_t id = method.getHash();
    if (!registeredMethods.try_emplace(id, parentClass, methodId).second) {
        std::cout << "Method already registered. "
                  << "\n\tParent class '" << method.className << "'"
                  << "\n\tMethod '" << method.methodName << "'"
                  << "\n\tSignature '" << method.signature << "'" << std::endl;
    }
    return id;
}

void JVM::callJMethod(std::uint64_t id, const std::vector<std::string>& args) {
    const auto registered = registeredMethods.find(id);
    if (registered == registeredMethods.end()) {
        std::ostringstream message;
        // to_string, because a stream groups digits if the global locale does.
        message << "Failed to find method. RegID: '" << std::to_string(id) << "' with args:\n";
        for (const std::string& arg : args) {
            message << "\t" << arg << "\n";
        }
        throw std::runtime_error(message.str());
    }
    attachCurrentThread();
    callJavaMethod(registered->second, args);
    // Detaching makes the VM report an exception that escaped the method now, not after
    // DestroyJavaVM has waited for the other threads.
    detachCurrentThread();
}

jclass JVM::getClass(const std::string& className) const {
    return env->FindClass(className.c_str());
}

jmethodID JVM::getClassMethodWithSignature(const jclass& parentClass, const JMethod& method) const {
    return env->GetStaticMethodID(parentClass, method.methodName.c_str(), method.signature.c_str());
}

void JVM::callJavaMethod(const RegisteredMethod& method, const std::vector<std::string>& args) {
    const JArray array(args, getClass("java/lang/String"), env);
    env->CallStaticVoidMethod(method.first, method.second, array.get());
}

}  // namespace launcher
