// Whether a test program is built with a sanitizer: TARNIK_TEST_ASAN, TARNIK_TEST_TSAN, and
// TARNIK_TEST_SANITIZED for either.
#pragma once

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TARNIK_TEST_ASAN 1
#endif
#if __has_feature(thread_sanitizer)
#define TARNIK_TEST_TSAN 1
#endif
#endif

#if defined(TARNIK_TEST_ASAN) || defined(TARNIK_TEST_TSAN)
#define TARNIK_TEST_SANITIZED 1
#endif
