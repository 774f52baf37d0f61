#include "runtime.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
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

std::string variable(const char* name) {
    const char* const value = std::getenv(name);
    return value == nullptr ? "" : value;
}

jint status(const char* name) {
    const std::string value = variable(name);
    return value.empty() ? JNI_OK : std::stoi(value);
}

int openRecord() {
    const std::string name = variable("RUNTIME_RECORD");
    if (name.empty() || name == "-") {
        return STDOUT_FILENO;
    }
    // Never the descriptor of a closed standard stream, which the launcher writes to.
    const int lowest = open(name.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    const int descriptor = fcntl(lowest, F_DUPFD, STDERR_FILENO + 1);
    close(lowest);
    return descriptor;
}

/// What a reference stands for. Strings and arrays have their texts as literals.
struct Object {
    std::string name;
    std::vector<std::string> texts;
};

struct Env : JNIEnv {
    std::string name;
};

struct Runtime {
    runtime::Observer onCreate;
    std::vector<std::string> calls;
    std::map<std::string, int> callsOf;
    std::map<std::string, int> objectsOf;
    std::map<const void*, std::unique_ptr<Object>> objects;
    std::deque<Env> envs;
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

Object& object(const void* reference) {
    const auto found = current().objects.find(reference);
    if (found == current().objects.end()) {
        endTest("The launcher used a reference that is not valid.");
    }
    return *found->second;
}

std::string name(const void* reference) {
    return reference == nullptr ? "null" : object(reference).name;
}

std::string text(const void* reference) {
    return reference == nullptr ? "null" : object(reference).texts.at(0);
}

std::string literal(const char* text) {
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

/// Sliced by a handler that takes it by value, it loses its message.
struct DerivedError : std::runtime_error {
    DerivedError() : std::runtime_error("sliced") {}
    const char* what() const noexcept override { return "a derived error"; }
};

void raise(const std::string& kind) {
    if (kind == "runtime_error") {
        throw std::runtime_error("a runtime error");
    }
    if (kind == "derived_error") {
        throw DerivedError();
    }
    if (kind == "logic_error") {
        throw std::logic_error("a logic error");
    }
    if (kind == "int") {
        throw 1;
    }
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

/// Records a call of a function, of the env's table if there is one, and throws the error that is
/// configured for it.
void record(const JNIEnv* env, const std::string& function, const std::string& arguments,
            const std::string& result = "") {
    const std::string prefix = env == nullptr ? "" : static_cast<const Env*>(env)->name + ": ";
    const std::string line =
        prefix + function + "(" + arguments + ")" + (result.empty() ? "" : " = " + result);
    current().calls.push_back(line);
    writeRecord(line);
    std::istringstream error(variable("RUNTIME_ERROR"));
    std::string kind;
    std::string from;
    int call = 1;
    error >> kind >> from >> call;
    if (++current().callsOf[function] == call && function == from) {
        raise(kind);
    }
}

jclass JNICALL findClass(JNIEnv* env, const char* className) {
    Object* const result = className == variable("RUNTIME_MISSING_CLASS") ? nullptr : add("class");
    record(env, "FindClass", literal(className), name(result));
    return reinterpret_cast<jclass>(result);
}

jmethodID JNICALL getStaticMethodID(JNIEnv* env, jclass parent, const char* methodName,
                                    const char* signature) {
    Object* const result =
        methodName == variable("RUNTIME_MISSING_METHOD") ? nullptr : add("method");
    record(env, "GetStaticMethodID",
           name(parent) + ", " + literal(methodName) + ", " + literal(signature), name(result));
    return reinterpret_cast<jmethodID>(result);
}

/// Returns a new object, unless the function is configured to have no result.
Object* resultOf(const std::string& function, const std::string& kind,
                 const std::vector<std::string>& texts) {
    return function == variable("RUNTIME_NO_RESULT") ? nullptr : add(kind, texts);
}

jstring JNICALL newStringUTF(JNIEnv* env, const char* bytes) {
    Object* const result = resultOf("NewStringUTF", "string", {literal(bytes)});
    record(env, "NewStringUTF", literal(bytes), name(result));
    return reinterpret_cast<jstring>(result);
}

jobjectArray JNICALL newObjectArray(JNIEnv* env, jsize length, jclass elementClass,
                                    jobject initial) {
    const std::vector<std::string> texts(static_cast<std::size_t>(length), text(initial));
    Object* const result = resultOf("NewObjectArray", "array", texts);
    record(env, "NewObjectArray",
           std::to_string(length) + ", " + name(elementClass) + ", " + name(initial), name(result));
    return reinterpret_cast<jobjectArray>(result);
}

void JNICALL setObjectArrayElement(JNIEnv* env, jobjectArray array, jsize index, jobject element) {
    if (array != nullptr) {
        object(array).texts.at(static_cast<std::size_t>(index)) = text(element);
    }
    record(env, "SetObjectArrayElement",
           name(array) + ", " + std::to_string(index) + ", " + name(element));
}

/// Every C++ call of CallStaticVoidMethod arrives here. The record shows the array's elements.
void JNICALL callStaticVoidMethodV(JNIEnv* env, jclass parent, jmethodID method,
                                   va_list arguments) {
    auto* const array = va_arg(arguments, jobjectArray);
    std::string argument = name(array);
    if (array != nullptr) {
        argument += ' ' + list(object(array).texts);
    }
    record(env, "CallStaticVoidMethod", name(parent) + ", " + name(method) + ", " + argument);
    writeTo(STDOUT_FILENO, variable("RUNTIME_OUTPUT"));
}

void JNICALL deleteLocalRef(JNIEnv* env, jobject reference) {
    const std::string deleted = name(reference);
    current().objects.erase(reference);
    record(env, "DeleteLocalRef", deleted);
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
    }(std::make_index_sequence<sizeof(Table) / sizeof(void*)>());
}

Env* newEnv() {
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
    const std::string number = std::to_string(current().envs.size() + 1);
    return &current().envs.emplace_back(Env{{&functions}, "env#" + number});
}

/// Provides a new env unless the result is an error, and returns what the record says of it.
std::string provideEnv(jint result, void** env) {
    if (result != JNI_OK) {
        return std::to_string(result);
    }
    auto* const created = newEnv();
    *env = created;
    return created->name;
}

jint JNICALL destroyJavaVM(JavaVM*) {
    const jint result = status("RUNTIME_DESTROY_STATUS");
    record(nullptr, "DestroyJavaVM", "", std::to_string(result));
    return result;
}

jint JNICALL attachCurrentThread(JavaVM*, void** env, void* group) {
    const jint result = status("RUNTIME_ATTACH_STATUS");
    record(nullptr, "AttachCurrentThread", group == nullptr ? "null" : "a group",
           provideEnv(result, env));
    return result;
}

jint JNICALL detachCurrentThread(JavaVM*) {
    const jint result = status("RUNTIME_DETACH_STATUS");
    record(nullptr, "DetachCurrentThread", "", std::to_string(result));
    return result;
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

void reset(const Observer& onCreate) {
    current() = {};
    current().onCreate = onCreate;
}

const std::vector<std::string>& calls() {
    return current().calls;
}

}  // namespace runtime

extern "C" JNIEXPORT jint JNICALL JNI_CreateJavaVM(JavaVM** vm, void** env, void* args) {
    const auto& init = *static_cast<const JavaVMInitArgs*>(args);
    if (current().onCreate) {
        current().onCreate(init);
    }
    std::vector<std::string> options;
    for (jint i = 0; i < init.nOptions; ++i) {
        options.push_back(literal(init.options[i].optionString) +
                          (init.options[i].extraInfo == nullptr ? "" : "+extraInfo"));
    }
    std::ostringstream arguments;
    arguments << "version=0x" << std::hex << init.version << std::dec
              << ", ignoreUnrecognized=" << int{init.ignoreUnrecognized}
              << ", nOptions=" << init.nOptions << ", " << list(options);
    const jint result = status("RUNTIME_CREATE_STATUS");
    if (result == JNI_OK) {
        *vm = theVM();
    }
    record(nullptr, "JNI_CreateJavaVM", arguments.str(), provideEnv(result, env));
    return result;
}
