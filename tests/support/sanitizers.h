// Detects builds with sanitizers.
#pragma once

// A sanitizer's runtime reserves terabytes of address space, so the address space cannot be limited.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define PLYCONVERT_ADDRESS_SPACE_IN_USE 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define PLYCONVERT_ADDRESS_SPACE_IN_USE 1
#endif
#endif
