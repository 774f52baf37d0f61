#pragma once

#include <jni.h>

#include <functional>
#include <string>
#include <vector>

/// A stand-in for the Java runtime library: it exports JNI_CreateJavaVM, records every call and
/// behaves as the environment says. A JNI function that the launcher must not call, or an invalid
/// reference, ends the process at once with a message and SIGABRT.
///
///     RUNTIME_{CREATE,DESTROY,ATTACH,DETACH}_STATUS   the function's result; unless 0, no env
///     RUNTIME_MISSING_CLASS, RUNTIME_MISSING_METHOD   the lookup of this name returns null
///     RUNTIME_NO_RESULT   this function, NewStringUTF or NewObjectArray, returns null
///     RUNTIME_ERROR     "KIND FUNCTION N": a C++ error thrown by the Nth call (or first) of the
///                       function; KIND is runtime_error, derived_error (from that), logic_error
///                       or int
///     RUNTIME_OUTPUT    the Java method writes it to descriptor 1
///
/// The record has one line per call. Strings are in double quotes, with \" and \\, and \xNN for
/// bytes that are not printable ASCII. References are numbered by kind in the order they were
/// created; every attached thread gets an env of its own. An option whose extraInfo is not null is
/// followed by "+extraInfo".
///
///     JNI_CreateJavaVM(version=0x10008, ignoreUnrecognized=0, nOptions=1, ["-Xmx1g"]) = env#1
///     env#1: FindClass("a/B") = class#1
namespace runtime {

using Observer = std::function<void(const JavaVMInitArgs&)>;

/// Starts over with an empty record; the observer sees what the next VM is given.
void reset(const Observer& onCreate = {});

/// The record so far. It is also appended, one write per line, to the file in RUNTIME_RECORD
/// ("-": descriptor 1); there a last line, "exit", means that the process ended through exit().
const std::vector<std::string>& calls();

}  // namespace runtime
