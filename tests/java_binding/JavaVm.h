// One JVM embedded in a test program, with the project's jars on its class path and the
// project's libraries on its library path. Created on first use by the calling thread, which
// must be the thread that uses the returned JNIEnv (the tests' main thread).
#pragma once

#include <jni.h>

#include <string>

// The JVM's JNIEnv for the calling thread; aborts if the JVM cannot be created.
JNIEnv* javaEnv();

// The class `name` ("a/b/C"); aborts with the Java exception's description if it cannot be
// loaded (a missing jar or library is a broken build, not a test result).
jclass javaClass(const char* name);

// A static method of `clazz`; aborts if there is none with that signature.
jmethodID javaStaticMethod(jclass clazz, const char* name, const char* signature);

// If a Java exception is pending: prints it to stderr, clears it and returns its description.
std::string takeJavaException();
