// QLMR_TSAN is 1 in ThreadSanitizer builds (host test builds only), 0 otherwise.
#pragma once

#if defined(__SANITIZE_THREAD__)
#define QLMR_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QLMR_TSAN 1
#endif
#endif
#ifndef QLMR_TSAN
#define QLMR_TSAN 0
#endif
