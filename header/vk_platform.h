/* Debug levels and the process-wide debug mask. */
#ifndef VK_PLATFORM_H
#define VK_PLATFORM_H

#include <stdio.h>
#include "linux_x64.h"

#define VKDEBUG_ERR         0x80000000u
#define VKDEBUG_WARN        0x40000000u
#define VKDEBUG_INFO        0x20000000u
#define VKDEBUG_DEBUG       0x10000000u
#define VKDEBUG_TAZEPATTERN 0x00000800u
#define _VKDEBUG_MASK       0xF0000FFFu
/* Levels that can print: the category bits and the debug bit are outside. */
#define VKDEBUG_MASK        (_VKDEBUG_MASK & ~VKDEBUG_DEBUG & ~0x00000FFFu)

#ifdef __cplusplus
extern "C" {
#endif

/* Zero at load time: all output off. */
extern VK_EXPORT unsigned int debugLevel;

#ifdef __cplusplus
}
#endif

#define VK_DEBUG_ON(level) ((VKDEBUG_MASK & (unsigned int)(level) & debugLevel) != 0u)
/* printf-style message of one level; nothing is printed when it is off. */
#define VK_DEBUG_PRINTF(level, ...) do { if (VK_DEBUG_ON(level)) printf(__VA_ARGS__); } while (0)
/* puts-style message (a newline is added). */
#define VK_DEBUG_PUTS(level, text) do { if (VK_DEBUG_ON(level)) puts(text); } while (0)

#endif /* VK_PLATFORM_H */
