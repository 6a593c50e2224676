/* Character constants. */
#ifndef ASCII_H
#define ASCII_H

#define ASCII_NUL   0x00
#define ASCII_TAB   0x09
#define ASCII_LF    0x0A
#define ASCII_CR    0x0D
#define ASCII_SPACE 0x20
#define ASCII_DOT   0x2E
#define ASCII_SLASH 0x2F
#define ASCII_A     0x41
#define ASCII_Z     0x5A
#define ASCII_a     0x61
#define ASCII_z     0x7A
#define ASCII_CASE_BIT 0x20

#endif /* ASCII_H */
