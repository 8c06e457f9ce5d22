// One JVM in the test program with the project's jars and libraries, made by its first user.
#pragma once

#include <jni.h>

#include <string>

// The JVM's JNIEnv for the calling thread; aborts if the JVM cannot be created.
JNIEnv* javaEnv();

// The class `name` ("a/b/C"); aborts with the Java exception if it cannot be loaded.
jclass javaClass(const char* name);

// A static method of `clazz`; aborts if there is none with that signature.
jmethodID javaStaticMethod(jclass clazz, const char* name, const char* signature);

// If a Java exception is pending: prints it to stderr, clears it and returns its description.
std::string takeJavaException();
