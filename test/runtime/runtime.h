#pragma once

#include <jni.h>

#include <functional>
#include <string>
#include <vector>

/// A stand-in for the Java runtime library: it exports JNI_CreateJavaVM, records every call and
/// behaves as configured: by the functions below where it is linked into a test, as a libjvm.so by
/// the environment variables named beside each field. A JNI function that the launcher must not
/// call, an invalid reference, or a call on another thread than the process's first ends the
/// process at once with a message and SIGABRT.
///
/// The record has one line per call. Strings are in double quotes, with \" and \\, and \xNN for
/// bytes that are not printable ASCII. References are numbered by kind in the order they were
/// created; every attached thread gets an env of its own. An option whose extraInfo is not null is
/// followed by "+extraInfo".
///
///     JNI_CreateJavaVM(version=0x10008, ignoreUnrecognized=0, nOptions=1, ["-Xmx1g"]) = env#1
///     env#1: FindClass("a/B") = class#1
namespace runtime {

struct Behaviour {
    jint createStatus = JNI_OK;      // RUNTIME_CREATE_STATUS
    jint destroyStatus = JNI_OK;     // RUNTIME_DESTROY_STATUS
    jint attachStatus = JNI_OK;      // RUNTIME_ATTACH_STATUS; unless 0, there is no env
    jint detachStatus = JNI_OK;      // RUNTIME_DETACH_STATUS
    std::string missingClass = {};   // RUNTIME_MISSING_CLASS: FindClass returns null for it
    std::string missingMethod = {};  // RUNTIME_MISSING_METHOD: GetStaticMethodID likewise
    std::string error = {};          // RUNTIME_ERROR: "KIND FUNCTION N", a C++ error thrown by
                                     // the Nth call (or first) of the function; KIND is
                                     // runtime_error, range_error, logic_error, bad_alloc or int
    std::string output = {};         // RUNTIME_OUTPUT: the Java method writes it to descriptor 1
    std::function<void(const JavaVMInitArgs&)> onCreate = {};  // sees what the VM is given
};

/// Starts over with this behaviour and an empty record.
void reset(const Behaviour& behaviour = {});

/// The record so far. It is also appended, one write per line, to the file in RUNTIME_RECORD
/// ("-": descriptor 1); there a last line, "exit", means that the process ended through exit().
const std::vector<std::string>& calls();

}  // namespace runtime
