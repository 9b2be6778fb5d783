#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef const struct __SecRandom* SecRandomRef;

extern const SecRandomRef kSecRandomDefault;

int SecRandomCopyBytes(SecRandomRef generator, size_t count, void* bytes);

#ifdef __cplusplus
}
#endif
