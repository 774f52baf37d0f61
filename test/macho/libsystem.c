/// libSystem: glibc's own function where the two agree on its name, arguments and results, a
/// stand-in where they do not. An import in neither list ends the process when it is bound; one
/// that is listed as never called does so when it is called.
#include <dlfcn.h>
#include <errno.h>
#include <jni.h>
#include <limits.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <wchar.h>

#include "macho.h"

/// dyld's rule: the path given to exec; a relative one after the working directory, without "./".
static int executablePath(char* buffer, uint32_t* size) {
    const char* const given = (const char*)getauxval(AT_EXECFN);
    char path[2 * PATH_MAX] = "";
    if (given[0] != '/' && getcwd(path, PATH_MAX) != NULL) {
        strcat(path, "/");
    }
    strncat(path, path[0] != '\0' && strncmp(given, "./", 2) == 0 ? given + 2 : given, PATH_MAX);
    const size_t needed = strlen(path) + 1;
    if (needed > *size) {
        *size = (uint32_t)needed;
        return -1;
    }
    memcpy(buffer, path, needed);
    return 0;
}

/// Locks need not lock: the executable's code runs on one thread, and this says so.
static int onlyThread(void) {
    if (syscall(SYS_gettid) != getpid()) {
        die("the executable's code runs on a second thread");
    }
    return 0;
}

enum { PTHREAD_ONCE_DONE = 1 };

static int once(long* signature, void (*function)(void)) {
    onlyThread();
    if (*signature != PTHREAD_ONCE_DONE) {
        *signature = PTHREAD_ONCE_DONE;
        function();
    }
    return 0;
}

static int keyCreate(unsigned long* key, void (*destructor)(void*)) {
    pthread_key_t created;
    const int status = pthread_key_create(&created, destructor);
    *key = created;
    return status;
}

static unsigned machThread(void) {
    return 1;
}

static void* noLibrary(void) {
    return NULL;
}

static void zero(void* begin, size_t size) {
    memset(begin, 0, size);
}

/// The C locale, in which a character is a byte.
static int wideFromByte(wchar_t* wide, const char* text, size_t size) {
    if (text == NULL || size == 0 || *text == '\0') {
        return text != NULL && size == 0 ? -1 : 0;
    }
    *wide = (unsigned char)*text;
    return 1;
}

static size_t byteFromWide(char* text, wchar_t wide) {
    *text = (char)wide;
    return 1;
}

/// On arm64 Apple's va_list is a pointer to the arguments, all of them on the stack.
#ifdef __aarch64__
static va_list* listAt(va_list* list, void* arguments) {
    memset(list, 0, sizeof *list);
    ((void**)list)[0] = arguments;  // __stack; no register holds any
    return list;
}

static int printList(FILE* stream, const char* format, void* arguments) {
    va_list list;
    return vfprintf(stream, format, *listAt(&list, arguments));
}

static struct JNINativeInterface_ functions;
static struct JNIInvokeInterface_ invocation;
static const struct JNINativeInterface_* genuine;
static const struct JNIInvokeInterface_* genuineInvocation;
static jint (*createGenuine)(JavaVM**, void**, void*);

static void JNICALL callStaticVoid(JNIEnv* env, jclass of, jmethodID method, void* arguments) {
    va_list list;
    genuine->CallStaticVoidMethodV(env, of, method, *listAt(&list, arguments));
}

static void convertCalls(JNIEnv* env) {
    genuine = *env;
    functions = *genuine;
    functions.CallStaticVoidMethodV =
        (void(JNICALL*)(JNIEnv*, jclass, jmethodID, va_list))(void (*)(void))callStaticVoid;
    *env = &functions;
}

static jint JNICALL attach(JavaVM* vm, void** env, void* group) {
    const jint status = genuineInvocation->AttachCurrentThread(vm, env, group);
    if (status == JNI_OK) {
        convertCalls(*env);
    }
    return status;
}

static jint create(JavaVM** vm, void** env, void* arguments) {
    const jint status = createGenuine(vm, env, arguments);
    if (status == JNI_OK) {
        convertCalls(*env);
        genuineInvocation = **vm;
        invocation = *genuineInvocation;
        invocation.AttachCurrentThread = attach;
        **vm = &invocation;
    }
    return status;
}

void* createJavaVM(void* genuineCreate) {
    createGenuine = (jint(*)(JavaVM**, void**, void*))genuineCreate;
    return (void*)create;
}
#else
#define printList vfprintf

void* createJavaVM(void* genuineCreate) {
    return genuineCreate;
}
#endif

static const char* const SAME[] = {
    "_Unwind_DeleteException",
    "_Unwind_GetIP",
    "_Unwind_GetLanguageSpecificData",
    "_Unwind_GetRegionStart",
    "_Unwind_RaiseException",
    "_Unwind_Resume",
    "_Unwind_SetGR",
    "_Unwind_SetIP",
    "__cxa_atexit",
    "abort",
    "aligned_alloc",
    "calloc",
    "exit",
    "fclose",
    "fflush",
    "fopen",
    "fputc",
    "fread",
    "free",
    "fseek",
    "fseeko",
    "ftello",
    "fwrite",
    "getc",
    "malloc",
    "memchr",
    "pthread_getspecific",
    "pthread_self",
    "pthread_setspecific",
    "realloc",
    "strcmp",
    "strlen",
    "ungetc",
    "wcslen",
};

static const struct {
    const char* name;
    void* with;
} REPLACED[] = {
    {"_NSGetExecutablePath", (void*)executablePath},
    {"__bzero", (void*)zero},
    {"__error", (void*)__errno_location},
    {"__stderrp", &stderr},
    {"__stdinp", &stdin},
    {"__stdoutp", &stdout},
    {"bzero", (void*)zero},
    {"dlopen", (void*)noLibrary},
    {"mbtowc_l", (void*)wideFromByte},
    {"pthread_cond_broadcast", (void*)onlyThread},
    {"pthread_key_create", (void*)keyCreate},
    {"pthread_mach_thread_np", (void*)machThread},
    {"pthread_mutex_lock", (void*)onlyThread},
    {"pthread_mutex_unlock", (void*)onlyThread},
    {"pthread_once", (void*)once},
    {"vfprintf", (void*)printList},
    {"wcrtomb_l", (void*)byteFromWide},
};

#define NEVER_CALLED(X)                                                                   \
    X(___mb_cur_max_l)                                                                    \
    X(__maskrune_l)                                                                       \
    X(__stack_chk_fail)                                                                   \
    X(__tolower) X(__toupper) X(asprintf_l) X(catclose) X(catgets) X(catopen) X(dlsym)    \
        X(dyld_stub_binder) X(fputwc) X(freelocale) X(getwc) X(mbrlen_l) X(mbrtowc_l)     \
            X(mbsnrtowcs_l) X(mbsrtowcs_l) X(pthread_cond_wait) X(snprintf) X(snprintf_l) \
                X(sscanf) X(sscanf_l) X(strerror_r) X(strftime_l) X(strtod_l) X(strtof_l) \
                    X(strtold_l) X(strtoll_l) X(strtoull_l) X(ungetwc) X(wcsnrtombs_l) X(wmemchr)
#define END(name)                                            \
    static void never_##name(void) {                         \
        die("_%s was called, which has no stand-in", #name); \
    }
NEVER_CALLED(END)

void* systemSymbol(const char* import) {
    static uint64_t guard = 0x0BADCAFE0BADCA00;
    const char* const name = import + (import[0] == '_');  // of every C name
    if (strcmp(name, "__stack_chk_guard") == 0) {
        return &guard;
    }
    if (strcmp(name, "_DefaultRuneLocale") == 0) {  // never read: the page cannot be
        return mmap(NULL, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    }
    for (size_t i = 0; i < sizeof REPLACED / sizeof *REPLACED; ++i) {
        if (strcmp(name, REPLACED[i].name) == 0) {
            return REPLACED[i].with;
        }
    }
    for (size_t i = 0; i < sizeof SAME / sizeof *SAME; ++i) {
        if (strcmp(name, SAME[i]) == 0) {
            return dlsym(RTLD_DEFAULT, name);
        }
    }
#define FIND(listed)                  \
    if (strcmp(name, #listed) == 0) { \
        return (void*)never_##listed; \
    }
    NEVER_CALLED(FIND)
    die("nothing stands in for %s of libSystem", import);
}
