/* A libjvm.so that does nothing: what remains of a run is the launcher's own. */
#include <jni.h>

static char object;

static jclass JNICALL find_class(JNIEnv* env, const char* name) {
    (void)env, (void)name;
    return (jclass)&object;
}

static jmethodID JNICALL get_method(JNIEnv* env, jclass in, const char* name, const char* type) {
    (void)env, (void)in, (void)name, (void)type;
    return (jmethodID)&object;
}

static jstring JNICALL new_string(JNIEnv* env, const char* bytes) {
    (void)env, (void)bytes;
    return (jstring)&object;
}

static jobjectArray JNICALL new_array(JNIEnv* env, jsize length, jclass of, jobject initial) {
    (void)env, (void)length, (void)of, (void)initial;
    return (jobjectArray)&object;
}

static void JNICALL set_element(JNIEnv* env, jobjectArray in, jsize index, jobject value) {
    (void)env, (void)in, (void)index, (void)value;
}

static void JNICALL call(JNIEnv* env, jclass in, jmethodID method, va_list arguments) {
    (void)env, (void)in, (void)method, (void)arguments;
}

static void JNICALL call_with(JNIEnv* env, jclass in, jmethodID method, ...) {
    (void)env, (void)in, (void)method;
}

static void JNICALL delete_reference(JNIEnv* env, jobject reference) {
    (void)env, (void)reference;
}

static const struct JNINativeInterface_ functions = {
    .FindClass = find_class,
    .GetStaticMethodID = get_method,
    .NewStringUTF = new_string,
    .NewObjectArray = new_array,
    .SetObjectArrayElement = set_element,
    .CallStaticVoidMethod = call_with,
    .CallStaticVoidMethodV = call,
    .DeleteLocalRef = delete_reference,
};
static JNIEnv environment = &functions;

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
    .DestroyJavaVM = end,
    .AttachCurrentThread = attach,
    .DetachCurrentThread = end,
};
static JavaVM machine = &invocations;

JNIEXPORT jint JNICALL JNI_CreateJavaVM(JavaVM** vm, void** env, void* arguments) {
    (void)arguments;
    *vm = &machine;
    *env = &environment;
    return JNI_OK;
}
