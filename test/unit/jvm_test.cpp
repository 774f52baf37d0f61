#include "jvm/jvm.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <locale>
#include <new>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

#include "runtime.h"

namespace {

using Strings = std::vector<std::string>;
using launcher::JMethod;
using launcher::JVM;

const std::string CREATED =
    R"(JNI_CreateJavaVM(version=0x10008, ignoreUnrecognized=0, nOptions=1, ["-cp"]) = env#1)";

/// Keeps what is written to a stream, and counts its flushes.
class Console : public std::stringbuf {
public:
    int flushes = 0;

private:
    int sync() override {
        ++flushes;
        return std::stringbuf::sync();
    }
};

/// Every test begins with a fresh runtime and has standard output to itself.
class JvmTest : public testing::Test {
protected:
    JvmTest() { runtime::reset(); }
    ~JvmTest() override { std::cout.rdbuf(terminal); }

    std::string printed() const { return console.str(); }
    int flushes() const { return console.flushes; }

private:
    Console console;
    std::streambuf* terminal = std::cout.rdbuf(&console);
};

/// An environment variable that tells the runtime how to behave, for the length of a scope.
class Behaviour {
public:
    Behaviour(const char* variable, const std::string& value) : name(variable) {
        setenv(name, value.c_str(), 1);
    }
    ~Behaviour() { unsetenv(name); }

    Behaviour(const Behaviour&) = delete;
    Behaviour& operator=(const Behaviour&) = delete;

private:
    const char* name;
};

/// Memory whose release is awaited, and how often that has happened.
std::array<const void*, 3> awaited{};
int released = 0;

using Lifecycle = JvmTest;
using Invocation = JvmTest;

std::string errorOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(typeid(error), typeid(std::runtime_error));
        return error.what();
    }
    return "no error";
}

TEST_F(Lifecycle, The_vm_is_given_copies_that_are_released_whether_it_was_created_or_not) {
    const Strings options{std::string(100, 'x'), std::string(100, 'y')};
    const std::string classPath(100, 'c');
    for (const char* const status : {"0", "-1"}) {
        const Behaviour creation("RUNTIME_CREATE_STATUS", status);
        runtime::reset([&](const JavaVMInitArgs& init) {
            awaited = {init.options[0].optionString, init.options[1].optionString,
                       init.options[2].optionString};
            EXPECT_NE(awaited[0], classPath.data());
            EXPECT_NE(awaited[1], options[0].data());
            EXPECT_NE(awaited[2], options[1].data());
            released = 0;
        });
        std::optional<JVM> jvm;
        errorOf([&] { jvm.emplace(options, classPath); });
        EXPECT_EQ(jvm.has_value(), status[0] == '0');
        EXPECT_EQ(released, 3);
    }
}

TEST_F(Lifecycle, An_empty_class_path_and_an_empty_option_have_their_places) {
    const JVM jvm({"-a", "", "-b"}, "");
    EXPECT_EQ(runtime::calls(), Strings{"JNI_CreateJavaVM(version=0x10008, ignoreUnrecognized=0, "
                                        R"(nOptions=4, ["", "-a", "", "-b"]) = env#1)"});
}

TEST_F(Lifecycle, The_env_stays_until_another_is_attached) {
    JVM jvm({}, "-cp");
    jvm.detachCurrentThread();
    jvm.registerMethod({"a/Detached", "run", "()V"});
    jvm.attachCurrentThread();
    jvm.detachCurrentThread();
    const Behaviour failing("RUNTIME_ATTACH_STATUS", "-1");
    jvm.attachCurrentThread();
    jvm.registerMethod({"a/Failed", "run", "()V"});
    EXPECT_EQ(
        runtime::calls(),
        (Strings{CREATED, "DetachCurrentThread() = 0",
                 R"(env#1: FindClass("a/Detached") = class#1)",
                 R"(env#1: GetStaticMethodID(class#1, "run", "()V") = method#1)",
                 "AttachCurrentThread(null) = env#2", "DetachCurrentThread() = 0",
                 "AttachCurrentThread(null) = -1", R"(env#2: FindClass("a/Failed") = class#2)",
                 R"(env#2: GetStaticMethodID(class#2, "run", "()V") = method#2)"}));
}

TEST(Method, The_identifier_is_the_low_half_of_the_hash_of_the_three_texts_together) {
    for (int i = 0; i < 64; ++i) {
        const JMethod method{"a/B", std::to_string(i), "()V"};
        const std::size_t hash =
            std::hash<std::string>{}(method.className + method.methodName + method.signature);
        EXPECT_EQ(method.getHash(), hash % 4294967296U);
    }
}

TEST_F(Invocation, Each_method_is_called_by_its_hash_as_often_as_asked) {
    constexpr int METHODS = 16;  // enough that some of the hashes have their highest bit set
    JVM jvm({}, "-cp");
    std::vector<std::uint64_t> ids;
    for (int i = 0; i < METHODS; ++i) {
        const JMethod method{"a/B", std::to_string(i), "()V"};
        ids.push_back(jvm.registerMethod(method));
        EXPECT_EQ(ids.back(), method.getHash());
    }
    for (int call = 0; call < 2 * METHODS; ++call) {
        const int i = call % METHODS;
        jvm.callJMethod(ids.at(static_cast<std::size_t>(i)), {});
        const std::string number = std::to_string(i + 1);
        // Deleting the array and detaching follow.
        EXPECT_EQ(*(runtime::calls().end() - 3),
                  "env#" + std::to_string(call + 2) + ": CallStaticVoidMethod(class#" + number +
                      ", method#" + number + ", array#" + std::to_string(call + 1) + " [])");
    }
}

TEST_F(Invocation, A_class_or_method_that_is_not_found_leaves_nothing_in_the_registry) {
    const JMethod method{"a/B", "run", "()V"};
    for (const auto& [missing, name] :
         {std::pair{"RUNTIME_MISSING_CLASS", "a/B"}, {"RUNTIME_MISSING_METHOD", "run"}}) {
        JVM jvm({}, "-cp");
        {
            const Behaviour lookup(missing, name);
            EXPECT_NE(errorOf([&] { jvm.registerMethod(method); }), "no error");
        }
        EXPECT_EQ(errorOf([&] { jvm.callJMethod(method.getHash(), {}); }),
                  "Failed to find method. RegID: '" + std::to_string(method.getHash()) +
                      "' with args:\n");
    }
}

TEST_F(Invocation, The_same_method_again_is_reported_and_can_still_be_missing) {
    JVM jvm({}, "-cp");
    const JMethod method{"a/B", "run", "()V"};
    const std::uint64_t id = jvm.registerMethod(method);
    EXPECT_EQ(jvm.registerMethod(method), id);
    const std::string notice =
        "Method already registered. \n\tParent class 'a/B'\n\tMethod 'run'\n\tSignature '()V'\n";
    EXPECT_EQ(printed(), notice);
    {
        const Behaviour lookup("RUNTIME_MISSING_METHOD", "run");
        EXPECT_EQ(errorOf([&] { jvm.registerMethod(method); }),
                  "Couldn't find method 'run' with proper signature of '()V'");
    }
    const Behaviour lookup("RUNTIME_MISSING_CLASS", "a/B");
    EXPECT_EQ(errorOf([&] { jvm.registerMethod(method); }),
              "Class Error. Couldn't find parent class 'a/B'");
    EXPECT_EQ(printed(), notice);
}

TEST_F(Invocation, A_method_of_equal_text_is_reported_and_shares_the_identifier_of_the_first) {
    JVM jvm({}, "-cp");
    const std::uint64_t id = jvm.registerMethod({"a/B", "cd", "()V"});
    EXPECT_EQ(printed(), "");
    EXPECT_EQ(jvm.registerMethod({"a/Bc", "d", "()V"}), id);
    EXPECT_EQ(printed(),
              "Method already registered. \n\tParent class 'a/Bc'\n\tMethod 'd'"
              "\n\tSignature '()V'\n");
    EXPECT_EQ(flushes(), 1);
    jvm.callJMethod(id, {});
    EXPECT_EQ(runtime::calls(),
              (Strings{CREATED, R"(env#1: FindClass("a/B") = class#1)",
                       R"(env#1: GetStaticMethodID(class#1, "cd", "()V") = method#1)",
                       R"(env#1: FindClass("a/Bc") = class#2)",
                       R"(env#1: GetStaticMethodID(class#2, "d", "()V") = method#2)",
                       "AttachCurrentThread(null) = env#2",
                       R"(env#2: FindClass("java/lang/String") = class#3)",
                       R"(env#2: NewStringUTF("") = string#1)",
                       "env#2: NewObjectArray(0, class#3, string#1) = array#1",
                       "env#2: CallStaticVoidMethod(class#1, method#1, array#1 [])",
                       "env#2: DeleteLocalRef(array#1)", "DetachCurrentThread() = 0"}));
}

TEST_F(Invocation, An_unknown_identifier_is_an_error_that_lists_the_arguments) {
    JVM jvm({}, "-cp");
    const std::uint64_t id = jvm.registerMethod({"a/Runner", "run", "()V"});
    const std::size_t before = runtime::calls().size();
    EXPECT_EQ(
        errorOf([&] { jvm.callJMethod(id + 1, {"x", "y"}); }),
        "Failed to find method. RegID: '" + std::to_string(id + 1) + "' with args:\n\tx\n\ty\n");
    EXPECT_EQ(errorOf([&] { jvm.callJMethod(18446744073709551615U, {}); }),
              "Failed to find method. RegID: '18446744073709551615' with args:\n");
    EXPECT_NE(errorOf([&] { jvm.callJMethod(id + 4294967296U, {}); }), "no error");
    EXPECT_EQ(runtime::calls().size(), before);
}

TEST_F(Invocation, An_identifier_in_a_message_has_no_separators_whatever_the_global_locale) {
    struct Grouping : std::numpunct<char> {
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale before = std::locale::global({std::locale::classic(), new Grouping});
    EXPECT_EQ(errorOf([] { JVM({}, "-cp").callJMethod(1234567, {}); }),
              "Failed to find method. RegID: '1234567' with args:\n");
    const Behaviour creation("RUNTIME_CREATE_STATUS", "-1234567");
    EXPECT_EQ(errorOf([] { const JVM jvm({}, "-cp"); }), "Error creating JVM: -1234567");
    std::locale::global(before);
}

}  // namespace

// In place of the C++ library's: they notice when awaited memory is released. Inlined, they look to
// g++ like a mismatched pair.

[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const memory = std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
    for (const void*& one : awaited) {
        if (memory != nullptr && memory == one) {
            one = nullptr;
            ++released;
        }
    }
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    operator delete(memory);
}
