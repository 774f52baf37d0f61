/* The least that hosts the service: the launcher's options, its VM, its main, and no more. */
#include <jni.h>

static JavaVMOption options[] = {
    {"-Djava.class.path=../Resources/lib/com.vaultory.desktop.jar:../Resources/lang", NULL},
#include "options.h"
};

int main(int argc, char* argv[]) {
    JavaVM* vm;
    JNIEnv* env;
    JavaVMInitArgs init = {JNI_VERSION_1_8, sizeof options / sizeof *options, options, JNI_FALSE};
    if (JNI_CreateJavaVM(&vm, (void**)&env, &init) != JNI_OK) {
        return 1;
    }
    jclass service = (*env)->FindClass(env, "com/vaultory/service/QRService");
    jmethodID run = (*env)->GetStaticMethodID(env, service, "main", "([Ljava/lang/String;)V");
    jobjectArray arguments =
        (*env)->NewObjectArray(env, argc - 1, (*env)->FindClass(env, "java/lang/String"), NULL);
    for (int i = 1; i < argc; ++i) {
        (*env)->SetObjectArrayElement(env, arguments, i - 1, (*env)->NewStringUTF(env, argv[i]));
    }
    (*env)->CallStaticVoidMethod(env, service, run, arguments);
    (*vm)->DestroyJavaVM(vm);
    return 0;
}
