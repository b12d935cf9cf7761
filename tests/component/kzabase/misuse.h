// Tests that call a function in a way it must refuse.
#pragma once

#include <gtest/gtest.h>

#ifdef __has_feature
#if __has_feature(thread_sanitizer)
#define KZE_THREAD_SANITIZER
#endif
#endif

// The thread sanitizer reports such a call, or ends the program at it, before
// the error number can be looked at.
#ifdef KZE_THREAD_SANITIZER
#define SKIP_MISUSE_UNDER_THREAD_SANITIZER() GTEST_SKIP() << "reported by the sanitizer itself"
#else
#define SKIP_MISUSE_UNDER_THREAD_SANITIZER() static_cast<void>(0)
#endif
