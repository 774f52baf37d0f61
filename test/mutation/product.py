"""What is mutated, what has to notice it, and the product's names for the engine to exchange."""

# Each source, and the unit tests that know it best.
SOURCES = {
    "src/launcher/main.cpp": [],
    "src/jvmargs/jvmargs.cpp": ["jvmargs_test"],
    "src/jvmargs/executable_path_linux.cpp": ["executable_path_test"],
    "src/jvm/jvm.cpp": ["jvm_test"],
    "src/jvm/jmethod.cpp": ["jvm_test"],
}
UNIT_TESTS = ["main_test", "jvmargs_test", "executable_path_test", "jvm_test"]
PROGRAM = "OrvaneService"
PROCESS_TESTS = [("test/console", "*_test.py"), ("test/faults", "allocations_test.py"),
                 ("test/faults", "system_calls_test.py")]
HELPERS = ["recording_libjvm", "allocation_fault"]  # built once, for the process tests

CONSTANTS = {
    "AT_EXECFN": ["AT_PLATFORM"], "DATA_DIR": ["SERVICE_CONTENTS"], "JNI_FALSE": ["JNI_TRUE"],
    "JNI_OK": ["JNI_ERR"], "JNI_VERSION_1_8": ["JNI_VERSION_1_6"], "PATH_MAX": ["16"],
    "SERVICE_CONTENTS": ["DATA_DIR"], "SYS_INSTALL_ARG": ["USER_INSTALL_ARG"],
    "USER_INSTALL_ARG": ["SYS_INSTALL_ARG"]}
NAMES = {
    "AttachCurrentThread": ["AttachCurrentThreadAsDaemon", "DetachCurrentThread"],
    "CallStaticVoidMethod": ["CallStaticObjectMethod"], "DeleteLocalRef": ["DeleteGlobalRef"],
    "GetStaticMethodID": ["GetMethodID"], "attachCurrentThread": ["detachCurrentThread"],
    "className": ["methodName"], "detachCurrentThread": ["attachCurrentThread"],
    "getDefaultJVMArgs": ["getJVMArgsFromFile"], "jint": ["signed char"], "jsize": ["signed char"],
    "methodName": ["signature"], "signature": ["className"]}
# Within a function that names both.
VARIABLES = {
    "appArgs": ["jvmArgs", "commandLine"], "commandLine": ["appArgs"], "contents": ["data"],
    "data": ["contents"], "jvmArgs": ["appArgs", "commandLine"]}
