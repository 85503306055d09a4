// Whether AddressSanitizer is built in (VELK2_ASAN), and poisoning of pooled
// memory that is not handed out, so that it reports a record used after it
// went back to its free list.
#ifndef VELK2_PLATFORM_SANITIZER_H_
#define VELK2_PLATFORM_SANITIZER_H_

#if defined(__SANITIZE_ADDRESS__)
#define VELK2_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VELK2_ASAN 1
#endif
#endif

#ifdef VELK2_ASAN
#include <sanitizer/asan_interface.h>
#define VELK2_POISON(address, size) ASAN_POISON_MEMORY_REGION((address), (size))
#define VELK2_UNPOISON(address, size) ASAN_UNPOISON_MEMORY_REGION((address), (size))
#else
#define VELK2_POISON(address, size) ((void)(address), (void)(size))
#define VELK2_UNPOISON(address, size) ((void)(address), (void)(size))
#endif

#endif  // VELK2_PLATFORM_SANITIZER_H_
