#include "jvm/jvm.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <iostream>
#include <locale>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "runtime.h"

namespace {

const void* watched = nullptr;  // memory whose release is noticed
bool released = false;

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
    if (void* const memory = std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
    released = released || (memory != nullptr && memory == watched);
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    ::operator delete(memory);
}

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

/// The same as expected: arguments in quotes, and what attaching, FindClass and detaching give.
Strings invocation(const Strings& quoted, const std::string& attached = "env#2",
                   const std::string& stringClass = "class#2", const std::string& detached = "0") {
    const std::string env = attached == "env#2" ? "env#2: " : "env#1: ";
    std::string list;
    Strings calls{"AttachCurrentThread(null) = " + attached,
                  env + R"(FindClass("java/lang/String") = )" + stringClass,
                  env + R"(NewStringUTF("") = string#1)",
                  env + "NewObjectArray(" + std::to_string(quoted.size()) + ", " + stringClass +
                      ", string#1) = array#1"};
    for (std::size_t i = 0; i < quoted.size(); ++i) {
        const std::string string = "string#" + std::to_string(i + 2);
        calls.push_back(env + "NewStringUTF(" + quoted[i] + ") = " + string);
        calls.push_back(env + "SetObjectArrayElement(array#1, " + std::to_string(i) + ", " +
                        string + ")");
        list += (i == 0 ? "" : ", ") + quoted[i];
    }
    calls.insert(calls.end(),
                 {env + "CallStaticVoidMethod(class#1, method#1, array#1 [" + list + "])",
                  env + "DeleteLocalRef(array#1)", "DetachCurrentThread() = " + detached});
    return calls;
}

TEST_F(Lifecycle, The_class_path_is_the_first_option_and_the_list_follows_byte_for_byte) {
    struct Case {
        std::string classPath;
        Strings options;
        std::string record;
    };
    for (
        const auto& [classPath, options, record] : std::vector<Case>{
            {"-cp", {"-b", "-a", "-b"}, R"(4, ["-cp", "-b", "-a", "-b"])"},
            {"-cp", {}, R"(1, ["-cp"])"},
            {"", {"", "-a", ""}, R"(4, ["", "", "-a", ""])"},
            {"no prefix is added",
             {" -Xmx1g\t\r", "a\nb", "\xff\xfe\x80", "\"\\"},
             R"(5, ["no prefix is added", " -Xmx1g\x09\x0d", "a\x0ab", "\xff\xfe\x80", "\"\\"])"}}) {
        runtime::reset();
        { const JVM jvm(options, classPath); }
        EXPECT_EQ(runtime::calls(), (Strings{CREATE + record + ") = env#1", DESTROYED}));
    }
    EXPECT_EQ(printed(), "");
}

TEST_F(Lifecycle, Thousands_of_options_short_and_long_are_passed) {
    Strings options;
    std::string list;
    for (int i = 0; i < 3000; ++i) {
        options.push_back(std::to_string(i) + std::string(i % 100 == 0 ? 70000U : 0U, 'x'));
        list.append(", \"").append(options.back()).append("\"");
    }
    { const JVM jvm(options, "-cp"); }
    EXPECT_EQ(runtime::calls(),
              (Strings{CREATE + "3001, [\"-cp\"" + list + "]) = env#1", DESTROYED}));
}

TEST_F(Lifecycle, The_vm_is_given_copies_which_are_freed_once_it_is_there) {
    const std::string longText(100, 'x');
    const Strings options{"-a", longText};
    const std::string classPath = "-cp";
    int compared = 0;
    runtime::reset({.onCreate = [&](const JavaVMInitArgs& init) {
        EXPECT_NE(init.options[0].optionString, classPath.data());
        for (const std::string& option : options) {
            EXPECT_NE(init.options[++compared].optionString, option.data());
        }
        watched = init.options[2].optionString;
        released = false;
    }});
    const JVM jvm(options, classPath);
    EXPECT_TRUE(released);
    EXPECT_EQ(compared, 2);
    EXPECT_EQ(options, (Strings{"-a", longText}));
    EXPECT_EQ(classPath, "-cp");
}

TEST_F(Lifecycle, A_vm_that_cannot_be_created_is_an_error_with_the_code_and_is_not_destroyed) {
    for (const int code : {-1, -6, 1, -2147483647 - 1, 2147483647}) {
        runtime::reset({.createStatus = code});
        EXPECT_EQ(errorOf([] { const JVM jvm({}, "-cp"); }),
                  "Error creating JVM: " + std::to_string(code));
        EXPECT_EQ(runtime::calls(), (Strings{CREATE + R"(1, ["-cp"]) = )" + std::to_string(code)}));
    }
    EXPECT_EQ(printed(), "");
}

TEST_F(Lifecycle, A_vm_that_cannot_be_destroyed_is_ignored) {
    runtime::reset({.destroyStatus = JNI_ERR});
    { const JVM jvm({}, "-cp"); }
    EXPECT_EQ(runtime::calls(), (Strings{CREATED_BARE, "DestroyJavaVM() = -1"}));
}

TEST_F(Lifecycle, A_vm_is_destroyed_without_detaching_while_an_error_unwinds) {
    EXPECT_EQ(errorOf([] {
                  const JVM jvm({}, "-cp");
                  throw std::runtime_error("unrelated");
              }),
              "unrelated");
    EXPECT_EQ(runtime::calls(), (Strings{CREATED_BARE, DESTROYED}));
}

TEST_F(Lifecycle, A_detached_vm_is_destroyed_and_nothing_else) {
    {
        JVM jvm({}, "-cp");
        jvm.detachCurrentThread();
    }
    EXPECT_EQ(runtime::calls(), (Strings{CREATED_BARE, "DetachCurrentThread() = 0", DESTROYED}));
}

TEST_F(Lifecycle, After_attaching_the_threads_own_env_is_used) {
    JVM jvm({}, "-cp");
    jvm.attachCurrentThread();
    jvm.registerMethod(RUN);
    EXPECT_EQ(runtime::calls(),
              (Strings{CREATED_BARE, "AttachCurrentThread(null) = env#2",
                       R"(env#2: FindClass("a/Runner") = class#1)",
                       R"(env#2: GetStaticMethodID(class#1, "run", "([Ljava/lang/String;)V"))"
                       " = method#1"}));
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

TEST_F(Lifecycle, A_vm_is_neither_copied_nor_moved) {
    EXPECT_FALSE(std::is_copy_constructible_v<JVM>);
    EXPECT_FALSE(std::is_copy_assignable_v<JVM>);
    EXPECT_FALSE(std::is_move_constructible_v<JVM>);
    EXPECT_FALSE(std::is_move_assignable_v<JVM>);
}

TEST(Method, The_identifier_is_the_low_half_of_the_hash_of_the_three_texts_together) {
    EXPECT_TRUE((std::is_same_v<decltype(RUN.getHash()), std::uint32_t>));
    for (int i = 0; i < 64; ++i) {
        const JMethod method{"a/B", std::to_string(i), "()V"};
        const std::size_t hash =
            std::hash<std::string>{}(method.className + method.methodName + method.signature);
        EXPECT_EQ(method.getHash(), hash % 4294967296U);
    }
}

TEST(Method, It_is_an_aggregate_of_three_strings) {
    EXPECT_TRUE(std::is_aggregate_v<JMethod>);
    const auto& [className, methodName, signature] = RUN;
    EXPECT_EQ((Strings{className, methodName, signature}),
              (Strings{"a/Runner", "run", "([Ljava/lang/String;)V"}));
}

TEST_F(Registry, A_registered_method_is_looked_up_and_known_by_its_identifier) {
    JVM jvm({}, "-cp");
    EXPECT_EQ(jvm.registerMethod(RUN), std::uint64_t{RUN.getHash()});
    EXPECT_EQ(runtime::calls(),
              (Strings{CREATED_BARE, R"(env#1: FindClass("a/Runner") = class#1)",
                       R"(env#1: GetStaticMethodID(class#1, "run", "([Ljava/lang/String;)V"))"
                       " = method#1"}));
    EXPECT_EQ(printed(), "");
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

TEST_F(Registry, A_missing_class_or_static_method_is_an_error_and_is_not_registered) {
    struct Case {
        runtime::Behaviour behaviour;
        std::string message;
        Strings calls;
    };
    const std::string get =
        R"(env#1: GetStaticMethodID(class#1, "run", "([Ljava/lang/String;)V") = null)";
    for (const auto& [behaviour, message, calls] : std::vector<Case>{
             {{.missingClass = "a/Runner"},
              "Class Error. Couldn't find parent class 'a/Runner'",
              {CREATED_BARE, R"(env#1: FindClass("a/Runner") = null)"}},
             {{.missingMethod = "run"},
              "Couldn't find method 'run' with proper signature of '([Ljava/lang/String;)V'",
              {CREATED_BARE, R"(env#1: FindClass("a/Runner") = class#1)", get}}}) {
        runtime::reset(behaviour);
        JVM jvm({}, "-cp");
        EXPECT_EQ(errorOf([&] { jvm.registerMethod(RUN); }), message);
        EXPECT_EQ(runtime::calls(), calls);
        EXPECT_EQ(
            errorOf([&] { jvm.callJMethod(RUN.getHash(), {}); }),
            "Failed to find method. RegID: '" + std::to_string(RUN.getHash()) + "' with args:\n");
    }
    EXPECT_EQ(printed(), "");
}

TEST_F(Registry, A_method_of_a_taken_identifier_can_still_be_missing) {
    runtime::reset({.missingMethod = "d"});
    JVM jvm({}, "-cp");
    const std::uint64_t id = jvm.registerMethod({"a/B", "cd", "()V"});
    EXPECT_EQ(id, (JMethod{"a/Bc", "d", "()V"}.getHash()));
    EXPECT_EQ(errorOf([&] {
                  jvm.registerMethod({"a/Bc", "d", "()V"});
              }),
              "Couldn't find method 'd' with proper signature of '()V'");
    EXPECT_EQ(printed(), "");
}

TEST_F(Invocation, A_call_attaches_builds_the_array_calls_deletes_the_array_and_detaches) {
    EXPECT_EQ(callsWith({"x", "y"}),
              (Strings{"AttachCurrentThread(null) = env#2",
                       R"(env#2: FindClass("java/lang/String") = class#2)",
                       R"(env#2: NewStringUTF("") = string#1)",
                       "env#2: NewObjectArray(2, class#2, string#1) = array#1",
                       R"(env#2: NewStringUTF("x") = string#2)",
                       "env#2: SetObjectArrayElement(array#1, 0, string#2)",
                       R"(env#2: NewStringUTF("y") = string#3)",
                       "env#2: SetObjectArrayElement(array#1, 1, string#3)",
                       R"(env#2: CallStaticVoidMethod(class#1, method#1, array#1 ["x", "y"]))",
                       "env#2: DeleteLocalRef(array#1)", "DetachCurrentThread() = 0"}));
    EXPECT_EQ(printed(), "");
}

TEST_F(Invocation, Without_arguments_the_array_is_empty_and_not_null) {
    EXPECT_EQ(callsWith({}), invocation({}));
}

TEST_F(Invocation, Arguments_arrive_byte_for_byte_and_in_order) {
    EXPECT_EQ(callsWith({" b ", "", "a b\tc\n", "\xc3\xa9\xff", "'\"\\", " b "}),
              invocation({R"(" b ")", R"("")", R"("a b\x09c\x0a")", R"("\xc3\xa9\xff")",
                          R"("'\"\\")", R"(" b ")"}));
}

TEST_F(Invocation, A_runtime_that_will_not_attach_or_detach_is_used_anyway) {
    runtime::reset({.attachStatus = JNI_ERR, .detachStatus = JNI_ERR});
    EXPECT_EQ(callsWith({}), invocation({}, "-1", "class#2", "-1"));
}

TEST_F(Invocation, A_missing_string_class_is_ignored) {
    runtime::reset({.missingClass = "java/lang/String"});
    EXPECT_EQ(callsWith({}), invocation({}, "env#2", "null"));
}

TEST_F(Invocation, An_unknown_identifier_is_an_error_that_lists_the_arguments) {
    JVM jvm({}, "-cp");
    const std::uint64_t id = jvm.registerMethod(RUN);
    const std::size_t before = runtime::calls().size();
    EXPECT_EQ(
        errorOf([&] {
            jvm.callJMethod(id + 1, {"x", "y"});
        }),
        "Failed to find method. RegID: '" + std::to_string(id + 1) + "' with args:\n\tx\n\ty\n");
    EXPECT_EQ(errorOf([&] { jvm.callJMethod(0, {}); }),
              "Failed to find method. RegID: '0' with args:\n");
    EXPECT_EQ(runtime::calls().size(), before);
}

TEST_F(Invocation, An_identifier_counts_with_all_its_64_bits) {
    JVM jvm({}, "-cp");
    const std::uint64_t id = jvm.registerMethod(RUN) + 4294967296U;
    EXPECT_EQ(errorOf([&] { jvm.callJMethod(id, {}); }),
              "Failed to find method. RegID: '" + std::to_string(id) + "' with args:\n");
    EXPECT_EQ(errorOf([&] { jvm.callJMethod(18446744073709551615U, {}); }),
              "Failed to find method. RegID: '18446744073709551615' with args:\n");
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

TEST_F(Invocation, An_error_out_of_the_method_leaves_the_array_deleted_and_the_thread_attached) {
    runtime::reset({.error = "runtime_error CallStaticVoidMethod"});
    EXPECT_EQ(errorOf([] { callsWith({}); }), "a runtime error");
    const Strings& calls = runtime::calls();
    EXPECT_EQ(Strings(calls.end() - 3, calls.end()),
              (Strings{"env#2: CallStaticVoidMethod(class#1, method#1, array#1 [])",
                       "env#2: DeleteLocalRef(array#1)", DESTROYED}));
}

TEST_F(Invocation, Memory_exhausted_while_the_array_is_filled_leaves_the_thread_attached) {
    runtime::reset({.error = "bad_alloc NewStringUTF 2"});
    EXPECT_THROW(callsWith({"x"}), std::bad_alloc);
    const Strings& calls = runtime::calls();
    EXPECT_EQ(Strings(calls.end() - 2, calls.end()),
              (Strings{R"(env#2: NewStringUTF("x") = string#2)", DESTROYED}));
}

/// The env of a VM of the stand-in's own, to see what becomes of improper use.
JNIEnv* freshEnv() {
    JavaVM* vm = nullptr;
    void* env = nullptr;
    JavaVMInitArgs init{};
    JNI_CreateJavaVM(&vm, &env, &init);
    return static_cast<JNIEnv*>(env);
}

TEST(StandInDeathTest, Every_exception_function_ends_the_test) {
    const auto ended = [](int slot) {
        return "^The launcher called function " + std::to_string(slot) +
               " of the JNI's JNIEnv table.\n$";
    };
    EXPECT_DEATH(freshEnv()->Throw(nullptr), ended(13));
    EXPECT_DEATH(freshEnv()->ThrowNew(nullptr, ""), ended(14));
    EXPECT_DEATH(freshEnv()->ExceptionOccurred(), ended(15));
    EXPECT_DEATH(freshEnv()->ExceptionDescribe(), ended(16));
    EXPECT_DEATH(freshEnv()->ExceptionClear(), ended(17));
    EXPECT_DEATH(freshEnv()->FatalError(""), ended(18));
    EXPECT_DEATH(freshEnv()->ExceptionCheck(), ended(228));
}

TEST(StandInDeathTest, Other_functions_of_either_table_end_the_test) {
    JavaVM* vm = nullptr;
    void* env = nullptr;
    JavaVMInitArgs init{};
    JNI_CreateJavaVM(&vm, &env, &init);
    EXPECT_DEATH(freshEnv()->NewGlobalRef(nullptr),
                 "^The launcher called function 21 of the JNI's JNIEnv table.\n$");
    EXPECT_DEATH(vm->GetEnv(&env, JNI_VERSION_1_8),
                 "^The launcher called function 6 of the JNI's JavaVM table.\n$");
}

TEST(StandInDeathTest, A_call_on_a_second_thread_ends_the_test) {
    EXPECT_DEATH(std::thread(freshEnv).join(),
                 "^The launcher called JNI_CreateJavaVM on a second thread.\n$");
}

TEST(StandInDeathTest, A_deleted_reference_ends_the_test) {
    EXPECT_DEATH(
        {
            JNIEnv* const env = freshEnv();
            const jclass parent = env->FindClass("a/B");
            env->DeleteLocalRef(parent);
            env->GetStaticMethodID(parent, "m", "()V");
        },
        "^The launcher used a reference that is not valid.\n$");
}

}  // namespace
