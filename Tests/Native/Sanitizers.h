// Tells at compile time whether the address or the thread sanitizer watches the test program. Both
// bring a malloc of their own and end the process at RTLD_DEEPBIND.
#pragma once

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QUORVALEN_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QUORVALEN_TEST_SANITIZED 1
#endif
#endif

#ifndef QUORVALEN_TEST_SANITIZED
#define QUORVALEN_TEST_SANITIZED 0
#endif
