#include "JavaVm.h"

#include <cstdio>
#include <cstdlib>

namespace {

[[noreturn]] void fatal(const std::string& what) {
    std::fprintf(stderr, "JavaVm: %s\n", what.c_str());
    std::abort();
}

}  // namespace

JNIEnv* javaEnv() {
    static JNIEnv* env = [] {
        std::string classPath = "-Djava.class.path=" QLMR_TEST_CLASSPATH;
        std::string libraryPath = "-Djava.library.path=" QLMR_TEST_LIBRARY_PATH;
        std::string noSignals = "-Xrs";  // leave SIGINT/SIGTERM/SIGQUIT to the test runner
        JavaVMOption options[] = {{classPath.data(), nullptr},
                                  {libraryPath.data(), nullptr},
                                  {noSignals.data(), nullptr}};
        JavaVMInitArgs args{};
        args.version = JNI_VERSION_10;
        args.nOptions = sizeof(options) / sizeof(options[0]);
        args.options = options;
        args.ignoreUnrecognized = JNI_FALSE;
        JavaVM* vm = nullptr;
        JNIEnv* created = nullptr;
        if (JNI_CreateJavaVM(&vm, reinterpret_cast<void**>(&created), &args) != JNI_OK)
            fatal("JNI_CreateJavaVM failed");
        return created;
    }();
    return env;
}

std::string takeJavaException() {
    JNIEnv* env = javaEnv();
    jthrowable pending = env->ExceptionOccurred();
    if (pending == nullptr)
        return "";
    env->ExceptionDescribe();  // prints and clears
    jclass objectClass = env->FindClass("java/lang/Object");
    jmethodID toString = env->GetMethodID(objectClass, "toString", "()Ljava/lang/String;");
    auto text = static_cast<jstring>(env->CallObjectMethod(pending, toString));
    std::string description = "(exception)";
    if (text != nullptr) {
        const char* chars = env->GetStringUTFChars(text, nullptr);
        description = chars;
        env->ReleaseStringUTFChars(text, chars);
    }
    return description;
}

jclass javaClass(const char* name) {
    jclass clazz = javaEnv()->FindClass(name);
    if (clazz == nullptr)
        fatal(std::string("cannot load ") + name + ": " + takeJavaException());
    return clazz;
}

jmethodID javaStaticMethod(jclass clazz, const char* name, const char* signature) {
    jmethodID method = javaEnv()->GetStaticMethodID(clazz, name, signature);
    if (method == nullptr)
        fatal(std::string("no static method ") + name + signature + ": " + takeJavaException());
    return method;
}
