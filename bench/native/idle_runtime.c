/* A libjvm.so that does nothing: what remains of a run is the launcher's own. */
#include <jni.h>

static char object;
static void* functions[256];
static void** environment = functions;

static void* something(void) {
    return &object;
}

static jint JNICALL end(JavaVM* vm) {
    (void)vm;
    return JNI_OK;
}

static jint JNICALL attach(JavaVM* vm, void** env, void* arguments) {
    (void)vm, (void)arguments;
    *env = &environment;
    return JNI_OK;
}

static const struct JNIInvokeInterface_ invocations = {
    .DestroyJavaVM = end, .AttachCurrentThread = attach, .DetachCurrentThread = end};
static JavaVM machine = &invocations;

JNIEXPORT jint JNICALL JNI_CreateJavaVM(JavaVM** vm, void** env, void* arguments) {
    for (int i = 0; i < 256; ++i) {
        functions[i] = (void*)something;
    }
    *vm = &machine;
    return attach(&machine, env, arguments);
}
