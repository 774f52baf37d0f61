#include "runtime.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <iomanip>
#include <map>
#include <memory>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace {

[[noreturn]] void endTest(const std::string& why) {
    std::fprintf(stderr, "%s\n", why.c_str());
    std::abort();
}

void writeTo(int descriptor, const std::string& text) {
    if (!text.empty() &&
        write(descriptor, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        endTest("The runtime could not write to descriptor " + std::to_string(descriptor) + ".");
    }
}

bool onMainThread() {
#ifdef __APPLE__
    return pthread_main_np() != 0;
#else
    return gettid() == getpid();
#endif
}

std::string variable(const char* name) {
    const char* const value = std::getenv(name);
    return value == nullptr ? "" : value;
}

jint status(const char* name) {
    const std::string value = variable(name);
    return value.empty() ? JNI_OK : std::stoi(value);
}

runtime::Behaviour fromEnvironment() {
    runtime::Behaviour behaviour;
    behaviour.createStatus = status("RUNTIME_CREATE_STATUS");
    behaviour.destroyStatus = status("RUNTIME_DESTROY_STATUS");
    behaviour.attachStatus = status("RUNTIME_ATTACH_STATUS");
    behaviour.detachStatus = status("RUNTIME_DETACH_STATUS");
    behaviour.missingClass = variable("RUNTIME_MISSING_CLASS");
    behaviour.missingMethod = variable("RUNTIME_MISSING_METHOD");
    behaviour.error = variable("RUNTIME_ERROR");
    behaviour.output = variable("RUNTIME_OUTPUT");
    return behaviour;
}

int openRecord() {
    const std::string name = variable("RUNTIME_RECORD");
    if (name.empty() || name == "-") {
        return STDOUT_FILENO;
    }
    // Not in the place of a closed standard stream, which the launcher writes to.
    const int lowest = open(name.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    const int descriptor = fcntl(lowest, F_DUPFD, STDERR_FILENO + 1);
    close(lowest);
    return descriptor;
}

/// What a reference stands for. Strings and arrays have their texts, quoted.
struct Object {
    std::string name;
    std::vector<std::string> texts;
    bool deleted = false;
};

struct Runtime {
    runtime::Behaviour behaviour = fromEnvironment();
    std::vector<std::string> calls;
    std::map<std::string, int> callsOf;
    std::map<std::string, int> objectsOf;
    std::map<const void*, std::unique_ptr<Object>> objects;
    std::deque<JNIEnv> envs;
};

Runtime& current() {
    static Runtime instance;
    return instance;
}

Object* add(const std::string& kind, std::vector<std::string> texts = {}) {
    auto object = std::make_unique<Object>();
    Object* const result = object.get();
    result->name = kind + "#" + std::to_string(++current().objectsOf[kind]);
    result->texts = std::move(texts);
    current().objects[result] = std::move(object);
    return result;
}

template <typename Reference>
Reference referenceTo(Object* object) {
    return reinterpret_cast<Reference>(object);
}

Object& object(const void* reference) {
    const auto found = current().objects.find(reference);
    if (found == current().objects.end() || found->second->deleted) {
        endTest("The launcher used a reference that is not valid.");
    }
    return *found->second;
}

std::string name(const void* reference) {
    return reference == nullptr ? "null" : object(reference).name;
}

std::string name(const JNIEnv* env) {
    int number = 0;
    for (const JNIEnv& given : current().envs) {
        ++number;
        if (&given == env) {
            return "env#" + std::to_string(number);
        }
    }
    endTest("The launcher used an env that is not valid.");
}

std::string quoted(const char* text) {
    constexpr std::string_view DIGITS = "0123456789abcdef";
    std::string result = "\"";
    for (; *text != '\0'; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        if (byte == '"' || byte == '\\') {
            result.append({'\\', *text});
        } else if (byte < 0x20 || byte > 0x7e) {
            result.append({'\\', 'x', DIGITS[byte / 16U], DIGITS[byte % 16U]});
        } else {
            result += *text;
        }
    }
    return result + '"';
}

std::string list(const std::vector<std::string>& texts) {
    std::string result;
    for (const std::string& text : texts) {
        result += (result.empty() ? "" : ", ") + text;
    }
    return "[" + result + "]";
}

void raise(const std::string& kind) {
    if (kind == "runtime_error") {
        throw std::runtime_error("a runtime error");
    }
    if (kind == "range_error") {
        throw std::range_error("a range error");
    }
    if (kind == "logic_error") {
        throw std::logic_error("a logic error");
    }
    if (kind == "bad_alloc") {
        throw std::bad_alloc();
    }
    if (kind == "int") {
        throw 1;
    }
    endTest("The runtime knows no error of the kind '" + kind + "'.");
}

void writeRecord(const std::string& line) {
    static const int descriptor = openRecord();
    if (!variable("RUNTIME_RECORD").empty()) {
        writeTo(descriptor, line + "\n");
    }
}

[[gnu::destructor]] void recordExit() {
    writeRecord("exit");
}

/// Records a call, by the env or through the VM, and throws where it should.
void record(const std::string& by, const std::string& function, const std::string& arguments,
            const std::string& result = "") {
    if (!onMainThread()) {
        endTest("The launcher called " + function + " on a second thread.");
    }
    const std::string line =
        by + function + "(" + arguments + ")" + (result.empty() ? "" : " = " + result);
    current().calls.push_back(line);
    writeRecord(line);
    std::istringstream error(current().behaviour.error);
    std::string kind;
    std::string from;
    int call = 1;
    error >> kind >> from >> call;
    if (++current().callsOf[function] == call && function == from) {
        raise(kind);
    }
}

std::string by(const JNIEnv* env) {
    return name(env) + ": ";
}

jclass JNICALL findClass(JNIEnv* env, const char* className) {
    Object* const result = className == current().behaviour.missingClass ? nullptr : add("class");
    record(by(env), "FindClass", quoted(className), name(result));
    return referenceTo<jclass>(result);
}

jmethodID JNICALL getStaticMethodID(JNIEnv* env, jclass parent, const char* methodName,
                                    const char* signature) {
    Object* const result =
        methodName == current().behaviour.missingMethod ? nullptr : add("method");
    record(by(env), "GetStaticMethodID",
           name(parent) + ", " + quoted(methodName) + ", " + quoted(signature), name(result));
    return referenceTo<jmethodID>(result);
}

jstring JNICALL newStringUTF(JNIEnv* env, const char* bytes) {
    Object* const result = add("string", {quoted(bytes)});
    record(by(env), "NewStringUTF", quoted(bytes), name(result));
    return referenceTo<jstring>(result);
}

jobjectArray JNICALL newObjectArray(JNIEnv* env, jsize length, jclass elementClass,
                                    jobject initial) {
    Object* const result = add("array", std::vector<std::string>(static_cast<std::size_t>(length),
                                                                 object(initial).texts.at(0)));
    record(by(env), "NewObjectArray",
           std::to_string(length) + ", " + name(elementClass) + ", " + name(initial), name(result));
    return referenceTo<jobjectArray>(result);
}

void JNICALL setObjectArrayElement(JNIEnv* env, jobjectArray array, jsize index, jobject element) {
    object(array).texts.at(static_cast<std::size_t>(index)) = object(element).texts.at(0);
    record(by(env), "SetObjectArrayElement",
           name(array) + ", " + std::to_string(index) + ", " + name(element));
}

/// Every C++ call of CallStaticVoidMethod comes here. What is in the array counts as its
/// argument in the record.
void JNICALL callStaticVoidMethodV(JNIEnv* env, jclass parent, jmethodID method,
                                   va_list arguments) {
    auto* const array = va_arg(arguments, jobjectArray);
    record(
        by(env), "CallStaticVoidMethod",
        name(parent) + ", " + name(method) + ", " + name(array) + " " + list(object(array).texts));
    writeTo(STDOUT_FILENO, current().behaviour.output);
}

void JNICALL deleteLocalRef(JNIEnv* env, jobject reference) {
    const std::string deleted = name(reference);
    object(reference).deleted = true;
    record(by(env), "DeleteLocalRef", deleted);
}

template <std::size_t TableSize, std::size_t Slot>
void trap() {
    endTest("The launcher called function " + std::to_string(Slot) + " of the JNI's " +
            (TableSize == sizeof(JNINativeInterface_) ? "JNIEnv" : "JavaVM") + " table.");
}

/// A function table in which every slot ends the test.
template <typename Table>
Table traps() {
    return []<std::size_t... Slots>(std::index_sequence<Slots...>) {
        return std::bit_cast<Table>(std::array{trap<sizeof(Table), Slots>...});
    }
    (std::make_index_sequence<sizeof(Table) / sizeof(void*)>());
}

JNIEnv* newEnv() {
    static const JNINativeInterface_ functions = [] {
        auto table = traps<JNINativeInterface_>();
        table.FindClass = findClass;
        table.GetStaticMethodID = getStaticMethodID;
        table.CallStaticVoidMethodV = callStaticVoidMethodV;
        table.NewStringUTF = newStringUTF;
        table.NewObjectArray = newObjectArray;
        table.SetObjectArrayElement = setObjectArrayElement;
        table.DeleteLocalRef = deleteLocalRef;
        return table;
    }();
    return &current().envs.emplace_back(JNIEnv{&functions});
}

jint JNICALL destroyJavaVM(JavaVM*) {
    record("", "DestroyJavaVM", "", std::to_string(current().behaviour.destroyStatus));
    return current().behaviour.destroyStatus;
}

jint JNICALL attachCurrentThread(JavaVM*, void** env, void* group) {
    const jint status = current().behaviour.attachStatus;
    if (status == JNI_OK) {
        *env = newEnv();
    }
    record("", "AttachCurrentThread", group == nullptr ? "null" : "a group",
           status == JNI_OK ? name(static_cast<JNIEnv*>(*env)) : std::to_string(status));
    return status;
}

jint JNICALL detachCurrentThread(JavaVM*) {
    record("", "DetachCurrentThread", "", std::to_string(current().behaviour.detachStatus));
    return current().behaviour.detachStatus;
}

JavaVM* theVM() {
    static const JNIInvokeInterface_ functions = [] {
        auto table = traps<JNIInvokeInterface_>();
        table.DestroyJavaVM = destroyJavaVM;
        table.AttachCurrentThread = attachCurrentThread;
        table.DetachCurrentThread = detachCurrentThread;
        return table;
    }();
    static JavaVM vm{&functions};
    return &vm;
}

}  // namespace

namespace runtime {

void reset(const Behaviour& behaviour) {
    current() = {};
    current().behaviour = behaviour;
}

const std::vector<std::string>& calls() {
    return current().calls;
}

}  // namespace runtime

extern "C" JNIEXPORT jint JNICALL JNI_CreateJavaVM(JavaVM** vm, void** env, void* args) {
    const auto& init = *static_cast<const JavaVMInitArgs*>(args);
    if (current().behaviour.onCreate) {
        current().behaviour.onCreate(init);
    }
    std::vector<std::string> options;
    for (jint i = 0; i < init.nOptions; ++i) {
        options.push_back(quoted(init.options[i].optionString) +
                          (init.options[i].extraInfo == nullptr ? "" : "+extraInfo"));
    }
    std::ostringstream arguments;
    arguments << "version=0x" << std::hex << init.version << std::dec
              << ", ignoreUnrecognized=" << int{init.ignoreUnrecognized}
              << ", nOptions=" << init.nOptions << ", " << list(options);
    const jint status = current().behaviour.createStatus;
    if (status == JNI_OK) {
        *vm = theVM();
        *env = newEnv();
    }
    record("", "JNI_CreateJavaVM", arguments.str(),
           status == JNI_OK ? name(static_cast<JNIEnv*>(*env)) : std::to_string(status));
    return status;
}
