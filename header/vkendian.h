/* Byte swapping between the little-endian host and network order. */
#ifndef VKENDIAN_H
#define VKENDIAN_H

#include "linux_x64.h"

static inline uint32_t vk_swap32(uint32_t v)
{
    return ((v & 0x000000FFu) << 24) | ((v & 0x0000FF00u) << 8) |
           ((v & 0x00FF0000u) >> 8) | ((v & 0xFF000000u) >> 24);
}

static inline uint16_t vk_swap16(uint16_t v)
{
    return (uint16_t)(((v & 0x00FFu) << 8) | ((v & 0xFF00u) >> 8));
}

#endif /* VKENDIAN_H */
