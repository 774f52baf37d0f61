#include "jvm/jvm.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <iostream>
#include <locale>
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

TEST_F(Lifecycle, The_vm_is_given_copies) {
    const Strings options{"-a", std::string(100, 'x')};
    const std::string classPath = "-cp";
    std::vector<const char*> given;
    runtime::reset([&given](const JavaVMInitArgs& init) {
        given = {init.options[0].optionString, init.options[1].optionString,
                 init.options[2].optionString};
    });
    const JVM jvm(options, classPath);
    ASSERT_EQ(given.size(), 3U);
    EXPECT_NE(given[0], classPath.data());
    EXPECT_NE(given[1], options[0].data());
    EXPECT_NE(given[2], options[1].data());
}

TEST(Method, The_identifier_is_the_low_half_of_the_hash_of_the_three_texts_together) {
    for (int i = 0; i < 64; ++i) {
        const JMethod method{"a/B", std::to_string(i), "()V"};
        const std::size_t hash =
            std::hash<std::string>{}(method.className + method.methodName + method.signature);
        EXPECT_EQ(method.getHash(), hash % 4294967296U);
    }
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
    setenv("RUNTIME_CREATE_STATUS", "-1234567", 1);
    EXPECT_EQ(errorOf([] { const JVM jvm({}, "-cp"); }), "Error creating JVM: -1234567");
    unsetenv("RUNTIME_CREATE_STATUS");
    std::locale::global(before);
}

}  // namespace
