/* The minimum that hosts the service: the launcher's options, its VM, its main. */
#include <jni.h>

static JavaVMOption options[] = {
    {"-Djava.class.path=../Resources/lib/com.vaultory.desktop.jar:../Resources/lang", NULL},
#include "options.h"
};

int main(void) {
    JavaVM* vm;
    JNIEnv* env;
    JavaVMInitArgs init = {JNI_VERSION_1_8, sizeof options / sizeof *options, options, JNI_FALSE};
    if (JNI_CreateJavaVM(&vm, (void**)&env, &init) != JNI_OK) {
        return 1;
    }
    jclass service = (*env)->FindClass(env, "com/vaultory/service/QRService");
    jmethodID run = (*env)->GetStaticMethodID(env, service, "main", "([Ljava/lang/String;)V");
    jclass string = (*env)->FindClass(env, "java/lang/String");
    (*env)->CallStaticVoidMethod(env, service, run, (*env)->NewObjectArray(env, 0, string, NULL));
    (*vm)->DestroyJavaVM(vm);
    return 0;
}
