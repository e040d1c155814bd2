// Bounded text copies for fixed-size text fields.
#pragma once

// Copies src into dst, a field of `capacity` bytes: whole when it fits,
// otherwise its first capacity - 1 bytes and a terminator. A null src or
// dst, or a capacity below 1, leaves dst unchanged. Returns dst.
char* strcpy_n(char* dst, const char* src, int capacity);

// Appends src to the text in dst by the same rule on the room that is left.
// When dst already fills `capacity` bytes (no terminator among them) it is
// left unchanged. Returns dst.
char* strcat_n(char* dst, const char* src, int capacity);

// strcpy_n for UTF-8 text: when the text must be cut, the cut falls on a
// character boundary (never inside a multi-byte sequence). Returns dst.
char* strcpy_utf8_n(char* dst, const char* src, int capacity);
