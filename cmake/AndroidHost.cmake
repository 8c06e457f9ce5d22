# Debian's host builds of the AOSP libraries (android-libutils-dev, android-liblog-dev,
# android-libcutils-dev, version 29.0.6). Their headers live in /usr/include/android and must
# be SYSTEM includes (two of them warn under -Wextra); the libraries sit outside the loader
# path and ship no pkg-config files, so they are imported by full path and reached by rpath.
# A cross build takes the target architecture's builds from its sysroot (CMAKE_SYSROOT).
set(ANDROID_HOST_INCLUDE_DIR ${CMAKE_SYSROOT}/usr/include/android CACHE PATH "AOSP host headers")
set(ANDROID_HOST_LIB_DIR ${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android CACHE PATH "AOSP host libraries")
if(NOT CMAKE_LIBRARY_ARCHITECTURE)
  set(ANDROID_HOST_LIB_DIR /usr/lib/x86_64-linux-gnu/android CACHE PATH "AOSP host libraries" FORCE)
endif()

foreach(lib log cutils utils)
  set(path ${ANDROID_HOST_LIB_DIR}/lib${lib}.so.0)
  if(NOT EXISTS ${path})
    message(FATAL_ERROR "${path} is missing: run scripts/setup.sh (installs android-lib${lib}-dev)")
  endif()
  add_library(android::${lib} SHARED IMPORTED GLOBAL)
  set_target_properties(android::${lib} PROPERTIES
    IMPORTED_LOCATION ${path}
    IMPORTED_SONAME lib${lib}.so.0
    INTERFACE_INCLUDE_DIRECTORIES ${ANDROID_HOST_INCLUDE_DIR})
endforeach()
set_property(TARGET android::utils APPEND PROPERTY INTERFACE_LINK_LIBRARIES android::log android::cutils)
set_property(TARGET android::cutils APPEND PROPERTY INTERFACE_LINK_LIBRARIES android::log)
