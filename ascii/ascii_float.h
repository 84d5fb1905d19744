// Floating-point numbers as text, to a number of significant digits.
#ifndef ASCII_ASCII_FLOAT_H
#define ASCII_ASCII_FLOAT_H

constexpr int FLOAT_TEXT_SIZE = 64;

// Writes value to text as printf's "%.<precision>G" does (precision 1 to 17), and
// returns the length.
int float_to_text(char (&text)[FLOAT_TEXT_SIZE], double value, int precision);

#endif
