/// libSystem: what the slice may call is glibc's function of the same name, or a stand-in
/// where the two differ; also the runtime library, where the calling conventions differ.

#include <dlfcn.h>
#include <jni.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <map>
#include <utility>

#include "image.h"
#include "jvmargs/executable_path.h"

namespace macho {

namespace {

/// The same in glibc, as is all of _Unwind.
constexpr std::array SAME = {"__cxa_atexit", "__stack_chk_fail",
                             "abort",        "aligned_alloc",
                             "calloc",       "exit",
                             "fclose",       "fflush",
                             "fopen",        "fputc",
                             "fread",        "free",
                             "fseek",        "fseeko",
                             "ftello",       "fwrite",
                             "getc",         "malloc",
                             "memchr",       "memcmp",
                             "memcpy",       "memmove",
                             "memset",       "pthread_getspecific",
                             "pthread_self", "pthread_setspecific",
                             "realloc",      "strcmp",
                             "strlen",       "ungetc",
                             "wcslen",       "wmemchr"};

/// Linked in by the C++ library's locales and wide streams, which the launcher does not use.
constexpr std::array NEVER_CALLED = {
    "___mb_cur_max_l", "__error",     "__maskrune_l",      "__tolower",
    "__toupper",       "asprintf_l",  "catclose",          "catgets",
    "catopen",         "dlsym",       "dyld_stub_binder",  "fputwc",
    "freelocale",      "getwc",       "mbrlen_l",          "mbrtowc_l",
    "mbsnrtowcs_l",    "mbsrtowcs_l", "pthread_cond_wait", "snprintf",
    "snprintf_l",      "sscanf",      "sscanf_l",          "strerror_r",
    "strftime_l",      "strtod_l",    "strtof_l",          "strtold_l",
    "strtoll_l",       "strtoull_l",  "ungetwc",           "wcsnrtombs_l"};

/// There is one of these functions per name, so that it can say which was called.
template <std::size_t Index>
void neverCalled() {
    fail(std::string("the program called ") + NEVER_CALLED[Index] + ", which has no stand-in");
}

const auto TRAPS = []<std::size_t... Indexes>(std::index_sequence<Indexes...>) {
    return std::array<void (*)(), NEVER_CALLED.size()>{neverCalled<Indexes>...};
}(std::make_index_sequence<NEVER_CALLED.size()>());

/// An object that Darwin initialised statically begins with a signature, of which glibc
/// would make a lock that is held.
template <typename Object>
Object* plain(Object* object, std::uint64_t signature) {
    if (at<std::uint64_t>(object) == signature) {
        std::memset(static_cast<void*>(object), 0, sizeof *object);
    }
    return object;
}

int lock(pthread_mutex_t* mutex) {
    return pthread_mutex_lock(plain(mutex, 0x32AAABA7));
}

int unlock(pthread_mutex_t* mutex) {
    return pthread_mutex_unlock(plain(mutex, 0x32AAABA7));
}

int broadcast(pthread_cond_t* condition) {
    return pthread_cond_broadcast(plain(condition, 0x3CB0B1BB));
}

struct Once {  // Darwin's, twice as long as glibc's
    pthread_once_t once;
    int rest;
};

int once(Once* control, void (*routine)()) {
    return pthread_once(&plain(control, 0x30B1BCBA)->once, routine);
}

int keyCreate(std::uint64_t* key, void (*destructor)(void*)) {
    pthread_key_t created = 0;
    const int error = pthread_key_create(&created, destructor);
    *key = created;
    return error;
}

unsigned machThread(pthread_t) {
    return static_cast<unsigned>(gettid());
}

/// Asked for Apple's reporter of crashes, which may be missing.
void* noLibrary(const char*, int) {
    return nullptr;
}

int toWide(wchar_t* to, const char* from, std::size_t size, void*) {
    return std::mbtowc(to, from, size);
}

std::size_t fromWide(char* to, wchar_t from, std::mbstate_t* state, void*) {
    return std::wcrtomb(to, from, state);
}

void zero(void* begin, std::size_t size) {
    std::memset(begin, 0, size);
}

#ifdef __x86_64__
constexpr auto PRINT = &std::vfprintf;
#else
/// Apple's list of arguments is a pointer to words on the stack; here it is a structure
/// that can say so.
std::va_list& listOf(void* words, std::va_list& list) {
    std::memset(static_cast<void*>(&list), 0, sizeof list);  // nothing was left in registers
    std::memcpy(static_cast<void*>(&list), &words, sizeof words);
    return list;
}

int print(std::FILE* to, const char* format, void* words) {
    std::va_list list;
    return std::vfprintf(to, format, listOf(words, list));
}
constexpr auto PRINT = &print;
#endif

template <typename Function>
void* address(Function* function) {
    return reinterpret_cast<void*>(function);
}

const std::map<std::string, void*>& standIns() {
    static std::uint64_t guard = 0x5AFE5AFE5AFE00;
    static const std::map<std::string, void*> all = {
        {"_NSGetExecutablePath", address(launcher::getExecutablePath)},
        {"__bzero", address(zero)},
        {"bzero", address(zero)},
        {"dlopen", address(noLibrary)},
        {"mbtowc_l", address(toWide)},
        {"pthread_cond_broadcast", address(broadcast)},
        {"pthread_key_create", address(keyCreate)},
        {"pthread_mach_thread_np", address(machThread)},
        {"pthread_mutex_lock", address(lock)},
        {"pthread_mutex_unlock", address(unlock)},
        {"pthread_once", address(once)},
        {"vfprintf", address(PRINT)},
        {"wcrtomb_l", address(fromWide)},
        {"__stack_chk_guard", &guard},
        {"__stderrp", &stderr},
        {"__stdinp", &stdin},
        {"__stdoutp", &stdout},
        // The table of characters: a page that ends the process if it is read.
        {"_DefaultRuneLocale", mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)},
    };
    return all;
}

}  // namespace

void* libSystem(const std::string& symbol) {
    const std::string name = symbol.substr(symbol[0] == '_' ? 1 : 0);
    const auto found = standIns().find(name);
    if (found != standIns().end()) {
        return found->second;
    }
    for (std::size_t i = 0; i < NEVER_CALLED.size(); ++i) {
        if (name == NEVER_CALLED[i]) {
            return address(TRAPS[i]);
        }
    }
    const bool same =
        name.starts_with("_Unwind_") || std::find(SAME.begin(), SAME.end(), name) != SAME.end();
    void* const function = same ? dlsym(RTLD_DEFAULT, name.c_str()) : nullptr;
    if (function == nullptr) {
        fail("libSystem's " + symbol + " has no stand-in");
    }
    return function;
}

#ifdef __x86_64__
void* libjvm(void* runtime, const std::string& symbol) {
    void* const found = dlsym(runtime, symbol.c_str() + 1);
    if (found == nullptr) {
        fail("Symbol not found: " + symbol);
    }
    return found;
}
#else
namespace {

void* createVM;
JNINativeInterface_ original;
JNIInvokeInterface_ originalVM;

void callStaticVoidMethodV(JNIEnv* env, jclass parent, jmethodID method, void* words) {
    std::va_list list;
    original.CallStaticVoidMethodV(env, parent, method, listOf(words, list));
}

/// Gives the env a copy of its functions in which the one that takes a list is adapted.
void adapt(void* given) {
    static JNINativeInterface_ functions;
    auto* const env = static_cast<JNIEnv*>(given);
    if (env->functions != &functions) {
        original = functions = *env->functions;
        void* const adapted = address(callStaticVoidMethodV);
        std::memcpy(static_cast<void*>(&functions.CallStaticVoidMethodV), &adapted, sizeof adapted);
        env->functions = &functions;
    }
}

jint attach(JavaVM* vm, void** env, void* group) {
    const jint status = originalVM.AttachCurrentThread(vm, env, group);
    if (status == JNI_OK) {
        adapt(*env);
    }
    return status;
}

jint create(JavaVM** vm, void** env, void* arguments) {
    static JNIInvokeInterface_ functions;
    const jint status = reinterpret_cast<decltype(&create)>(createVM)(vm, env, arguments);
    if (status == JNI_OK) {
        adapt(*env);
        originalVM = functions = *(*vm)->functions;
        functions.AttachCurrentThread = attach;
        (*vm)->functions = &functions;
    }
    return status;
}

}  // namespace

void* libjvm(void* runtime, const std::string& symbol) {
    createVM = dlsym(runtime, symbol.c_str() + 1);
    if (createVM == nullptr || symbol != "_JNI_CreateJavaVM") {
        fail("Symbol not found: " + symbol);
    }
    return address(create);
}
#endif

}  // namespace macho
