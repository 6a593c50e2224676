/* Platform types of the 64-bit little-endian Linux build. */
#ifndef LINUX_X64_H
#define LINUX_X64_H

#include <stddef.h>
#include <stdint.h>

typedef int8_t   INT8;
typedef uint8_t  UINT8;
typedef int16_t  INT16;
typedef uint16_t UINT16;
typedef int32_t  INT32;
typedef uint32_t UINT32;
typedef int64_t  INT64;
typedef uint64_t UINT64;
typedef unsigned char BYTE;

#define VK_LITTLE_ENDIAN 1

#if defined(__GNUC__)
#define VK_EXPORT __attribute__((visibility("default")))
#else
#define VK_EXPORT
#endif

#endif /* LINUX_X64_H */
