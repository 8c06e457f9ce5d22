# The JDK that builds and runs the Java side on the host (Debian's openjdk-17-jdk-headless):
# javac/jar/java through FindJava and UseJava, jni.h and libjvm through FindJNI, both taken from
# the same JDK (the one whose javac is found first). Included by every folder that needs it;
# the look-ups are cached, so later includes are cheap.
#
# After inclusion:
#   QLMR_BUILD_JAVA          option; ON makes the JDK required
#   QLMR_JAVA_TESTS          ON when JVM-driven tests can run in this build (not under the
#                            sanitizer presets: an instrumented library cannot be loaded into an
#                            uninstrumented JVM, and the JVM's own signal use defeats the tools)
#   QLMR_JAVA_OUTPUT_DIR     folder of the project's jars
#   JNI::JNI, JNI::JVM       jni.h include folders; libjvm for programs that embed a JVM
#   QLMR_JAVA_LAUNCHER       the command that runs java for tests: the host JDK's java, or in
#                            a cross build the target JDK's java under the cross emulator
#
# A cross build (cmake/armhf-toolchain.cmake) compiles with the host's javac and jar (their output
# does not depend on the architecture) and takes jni.h and libjvm from the target's JDK in its
# sysroot (QLMR_TARGET_JAVA_HOME).
option(QLMR_BUILD_JAVA "Build the Java binding and its host Java stand-ins (needs a JDK)" ON)

if(QLMR_BUILD_JAVA)
  find_package(Java 17 REQUIRED COMPONENTS Development Runtime)
  if(CMAKE_CROSSCOMPILING)
    set(JAVA_HOME ${QLMR_TARGET_JAVA_HOME})
    set(QLMR_JAVA_LAUNCHER ${CMAKE_CROSSCOMPILING_EMULATOR} ${QLMR_TARGET_JAVA_HOME}/bin/java)
  else()
    set(QLMR_JAVA_LAUNCHER ${Java_JAVA_EXECUTABLE})
  endif()
  if(NOT JAVA_HOME AND NOT DEFINED ENV{JAVA_HOME})
    # FindJNI searches JAVA_HOME first: point it at the JDK of the javac just found.
    get_filename_component(_qlmr_javac "${Java_JAVAC_EXECUTABLE}" REALPATH)
    get_filename_component(_qlmr_jdk_bin "${_qlmr_javac}" DIRECTORY)
    get_filename_component(JAVA_HOME "${_qlmr_jdk_bin}" DIRECTORY)
  endif()
  find_package(JNI REQUIRED COMPONENTS JVM)
  include(UseJava)
  set(CMAKE_JAVA_COMPILE_FLAGS -encoding UTF-8 -Xlint:all -Werror)
  set(QLMR_JAVA_OUTPUT_DIR ${CMAKE_BINARY_DIR}/java)

  if("${CMAKE_CXX_FLAGS}" MATCHES "-fsanitize")
    set(QLMR_JAVA_TESTS OFF)
  else()
    set(QLMR_JAVA_TESTS ON)
  endif()
else()
  set(QLMR_JAVA_TESTS OFF)
endif()
