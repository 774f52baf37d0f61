// A JVMTI agent that wants to see, and might change, the bytes of every class.
#include <jvmti.h>

extern "C" JNIEXPORT jint JNICALL Agent_OnLoad(JavaVM* vm, char*, void*) {
    jvmtiEnv* jvmti = nullptr;
    jvmtiCapabilities wanted{};
    wanted.can_generate_all_class_hook_events = 1;
    jvmtiEventCallbacks callbacks{};
    callbacks.ClassFileLoadHook = [](jvmtiEnv*, JNIEnv*, jclass, jobject, const char*, jobject,
                                     jint, const unsigned char*, jint*, unsigned char**) {};
    if (vm->GetEnv(reinterpret_cast<void**>(&jvmti), JVMTI_VERSION_1_2) != JNI_OK ||
        jvmti->AddCapabilities(&wanted) != JVMTI_ERROR_NONE ||
        jvmti->SetEventCallbacks(&callbacks, sizeof callbacks) != JVMTI_ERROR_NONE) {
        return JNI_ERR;
    }
    return jvmti->SetEventNotificationMode(JVMTI_ENABLE, JVMTI_EVENT_CLASS_FILE_LOAD_HOOK, nullptr);
}
