/*
 * The NDK API level the platform's NDK headers are read at on the host, and the availability
 * annotation they use, which the host's C library does not define. A build that sets either
 * itself keeps its own.
 */
#ifndef QLMR_HOST_NDK_API_LEVEL_H
#define QLMR_HOST_NDK_API_LEVEL_H

#ifndef __ANDROID_API__
#define __ANDROID_API__ 23
#endif

#ifndef __INTRODUCED_IN
#define __INTRODUCED_IN(api_level)
#endif

#endif /* QLMR_HOST_NDK_API_LEVEL_H */
