#include "jvm/jvm.h"

#include <gtest/gtest.h>

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

const std::string CREATE = "JNI_CreateJavaVM(version=0x10008, ignoreUnrecognized=0, nOptions=";
const std::string CREATED_BARE = CREATE + R"(1, ["-cp"]) = env#1)";
const std::string DESTROYED = "DestroyJavaVM() = 0";
const JMethod RUN{"a/Runner", "run", "([Ljava/lang/String;)V"};
const std::string RUN_NOTICE =
    "Method already registered. \n\tParent class 'a/Runner'\n\tMethod 'run'"
    "\n\tSignature '([Ljava/lang/String;)V'\n";

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
using Registry = JvmTest;
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

/// What is recorded while RUN, the VM's only method, is called with the arguments.
Strings callsWith(const Strings& arguments) {
    JVM jvm({}, "-cp");
    const std::uint64_t id = jvm.registerMethod(RUN);
    const auto before = static_cast<std::ptrdiff_t>(runtime::calls().size());
    jvm.callJMethod(id, arguments);
    return Strings(runtime::calls().begin() + before, runtime::calls().end());
}

TEST_F(Lifecycle, The_class_path_is_the_first_option_and_the_list_follows_byte_for_byte) {
    {
        const JVM jvm({" -b\t", "", "-b\n", "\xff"}, "no prefix is added");
    }
    EXPECT_EQ(runtime::calls(),
              (Strings{CREATE + R"(5, ["no prefix is added", " -b\x09", "", "-b\x0a", "\xff"]))" +
                           " = env#1",
                       DESTROYED}));
    EXPECT_EQ(printed(), "");
}

TEST_F(Lifecycle, More_options_than_16_bits_can_count_are_passed) {
    std::string last;
    runtime::reset({.onCreate = [&last](const JavaVMInitArgs& init) {
        ASSERT_EQ(init.nOptions, 70001);
        last = init.options[70000].optionString;
    }});
    Strings options(70000, "-a");
    options.back() = "-last";
    const JVM jvm(options, "-cp");
    EXPECT_EQ(last, "-last");
}

TEST_F(Lifecycle, The_vm_is_given_copies) {
    const Strings options{"-a", std::string(100, 'x')};
    const std::string classPath = "-cp";
    std::vector<const char*> given;
    runtime::reset({.onCreate = [&given](const JavaVMInitArgs& init) {
        given = {init.options[0].optionString, init.options[1].optionString,
                 init.options[2].optionString};
    }});
    const JVM jvm(options, classPath);
    ASSERT_EQ(given.size(), 3U);
    EXPECT_NE(given[0], classPath.data());
    EXPECT_NE(given[1], options[0].data());
    EXPECT_NE(given[2], options[1].data());
}

TEST_F(Lifecycle, A_vm_is_destroyed_without_detaching_while_an_error_unwinds) {
    EXPECT_EQ(errorOf([] {
                  const JVM jvm({}, "-cp");
                  throw std::runtime_error("unrelated");
              }),
              "unrelated");
    EXPECT_EQ(runtime::calls(), (Strings{CREATED_BARE, DESTROYED}));
}

TEST_F(Lifecycle, A_thread_that_cannot_attach_or_detach_is_ignored_and_keeps_its_env) {
    runtime::reset({.attachStatus = JNI_ERR, .detachStatus = JNI_EDETACHED});
    JVM jvm({}, "-cp");
    jvm.attachCurrentThread();
    jvm.detachCurrentThread();
    jvm.registerMethod(RUN);
    EXPECT_EQ(runtime::calls(),
              (Strings{CREATED_BARE, "AttachCurrentThread(null) = -1", "DetachCurrentThread() = -2",
                       R"(env#1: FindClass("a/Runner") = class#1)",
                       R"(env#1: GetStaticMethodID(class#1, "run", "([Ljava/lang/String;)V"))"
                       " = method#1"}));
}

TEST(Method, The_identifier_is_the_low_half_of_the_hash_of_the_three_texts_together) {
    for (int i = 0; i < 64; ++i) {
        const JMethod method{"a/B", std::to_string(i), "()V"};
        const std::size_t hash =
            std::hash<std::string>{}(method.className + method.methodName + method.signature);
        EXPECT_EQ(method.getHash(), hash % 4294967296U);
    }
}

TEST_F(Registry, A_method_registered_again_is_looked_up_again_reported_and_keeps_its_identifier) {
    Strings again;
    {
        JVM jvm({}, "-cp");
        const std::uint64_t id = jvm.registerMethod(RUN);
        EXPECT_EQ(printed(), "");
        const std::size_t before = runtime::calls().size();
        EXPECT_EQ(jvm.registerMethod(RUN), id);
        again.assign(runtime::calls().begin() + static_cast<std::ptrdiff_t>(before),
                     runtime::calls().end());
    }
    EXPECT_EQ(again, (Strings{R"(env#1: FindClass("a/Runner") = class#2)",
                              R"(env#1: GetStaticMethodID(class#2, "run", )"
                              R"("([Ljava/lang/String;)V") = method#2)"}));
    EXPECT_EQ(printed(), RUN_NOTICE);
    EXPECT_EQ(flushes(), 1);
}

TEST_F(Registry, Methods_of_equal_text_share_an_identifier_which_calls_the_first) {
    JVM jvm({}, "-cp");
    const std::uint64_t id = jvm.registerMethod({"a/B", "cd", "()V"});
    EXPECT_EQ(jvm.registerMethod({"a/Bc", "d", "()V"}), id);
    EXPECT_EQ(printed(),
              "Method already registered. \n\tParent class 'a/Bc'\n\tMethod 'd'"
              "\n\tSignature '()V'\n");
    jvm.callJMethod(id, {});
    EXPECT_EQ(runtime::calls(),
              (Strings{CREATED_BARE, R"(env#1: FindClass("a/B") = class#1)",
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

TEST_F(Invocation, More_arguments_than_16_bits_can_count_are_passed) {
    const Strings calls = callsWith(Strings(70000, "a"));
    ASSERT_EQ(calls.size(), 140007U);
    EXPECT_EQ(calls[3], "env#2: NewObjectArray(70000, class#2, string#1) = array#1");
    EXPECT_EQ(calls[140003], "env#2: SetObjectArrayElement(array#1, 69999, string#70001)");
}

TEST_F(Invocation, An_unknown_identifier_is_an_error_that_lists_the_arguments) {
    JVM jvm({}, "-cp");
    const std::uint64_t id = jvm.registerMethod(RUN);
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
    runtime::reset({.createStatus = -1234567});
    EXPECT_EQ(errorOf([] { const JVM jvm({}, "-cp"); }), "Error creating JVM: -1234567");
    std::locale::global(before);
}

}  // namespace
