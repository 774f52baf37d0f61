#pragma once

#include <jni.h>

#include <functional>
#include <string>
#include <vector>

/// A stand-in for the Java runtime library: it exports JNI_CreateJavaVM, keeps a record
/// of every call made to it, and does what it is told. A JNI function that the launcher
/// has no business calling, a reference that is not valid, or a call on another thread than
/// the process's first ends the process at once with a message and SIGABRT.
///
/// The record is one line per call; strings stand in double quotes, with \" and \\, and with
/// \xNN for bytes that are not printable ASCII. References are numbered by kind, in the
/// order they were given out; every attached thread gets an env of its own:
///
///     JNI_CreateJavaVM(version=0x10008, ignoreUnrecognized=0, nOptions=1, ["-Xmx1g"]) = env#1
///     env#1: FindClass("a/B") = class#1
///
/// An option whose extraInfo is not null is followed by "+extraInfo".
///
/// Linked into a test, the stand-in is driven by the functions below; as a libjvm.so, by
/// the environment variables named beside each field.
namespace runtime {

struct Behaviour {
    jint createStatus = JNI_OK;      // RUNTIME_CREATE_STATUS
    jint destroyStatus = JNI_OK;     // RUNTIME_DESTROY_STATUS
    jint attachStatus = JNI_OK;      // RUNTIME_ATTACH_STATUS; unless 0, no env is given
    jint detachStatus = JNI_OK;      // RUNTIME_DETACH_STATUS
    std::string missingClass = {};   // RUNTIME_MISSING_CLASS: FindClass gives null for this one
    std::string missingMethod = {};  // RUNTIME_MISSING_METHOD: so does GetStaticMethodID
    std::string error = {};          // RUNTIME_ERROR: "KIND FUNCTION N", a C++ error thrown out of
                                     // the Nth call (or first) of the function; KIND is
                                     // runtime_error, range_error, logic_error, bad_alloc or int
    std::string output = {};         // RUNTIME_OUTPUT: the Java method writes it to descriptor 1
    std::function<void(const JavaVMInitArgs&)> onCreate = {};  // sees what the VM is given
};

/// Forgets everything and starts again with this behaviour.
void reset(const Behaviour& behaviour = {});

/// The record so far. It is also appended to the file that RUNTIME_RECORD names, "-" being
/// descriptor 1, one write per line; there a last line, "exit", tells that the process ended
/// through its exit routine.
const std::vector<std::string>& calls();

}  // namespace runtime
