#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef const void* CFTypeRef;
typedef const struct __CFString* CFStringRef;

void CFRelease(CFTypeRef object);

#ifdef __cplusplus
}
#endif
